<?php
/* WordPress 4: constants, a theme's header and footer around a sidebar with two widgets, the HTTP API. */
function wp_initial_constants() { define('WP_MEMORY_LIMIT', '40M'); }
function wp_head() {
	usleep(1500);
	echo '<head></head>';
}
function wp_footer() { usleep(1500); }
class WP_Widget {
	public function display_callback($args, $widget_args = 1) { $this->widget($args, array()); }
	public function widget($args, $instance) {
		die('function WP_Widget::widget() must be over-ridden in a sub-class.');
	}
}
class WP_Widget_Recent_Posts extends WP_Widget {
	public function widget($args, $instance) { usleep(1500); }
}
class WP_Widget_Recent_Comments extends WP_Widget {
	public function widget($args, $instance) { usleep(1500); }
}
function dynamic_sidebar($index = 1) {
	$callbacks = array(array(new WP_Widget_Recent_Posts, 'display_callback'), array(new WP_Widget_Recent_Comments, 'display_callback'));
	foreach ($callbacks as $callback) {
		call_user_func_array($callback, array(array(), array('number' => 2)));
	}
}
class WP_Http {
	public function request($url, $args = array()) {
		@file_get_contents('http://127.0.0.1:9/inside');
		return array('headers' => array(), 'body' => '', 'response' => array('code' => 200, 'message' => 'OK'));
	}
	public function get($url, $args = array()) { return $this->request($url, $args); }
}
function wp_remote_get($url, $args = array()) {
	$http = new WP_Http;
	return $http->get($url, $args);
}
function load_template() {
	wp_head();
	dynamic_sidebar();
	wp_remote_get('http://127.0.0.1:9/outside');
	wp_footer();
}
wp_initial_constants();
load_template();
# --- /2017/hello => URI/*%2Fhello
