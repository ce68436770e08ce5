<?php
/* Drupal 7: staged bootstrap, the path resolved in it, a page callback, a view of the Views module, drupal_http_request. */
define('DRUPAL_BOOTSTRAP_SESSION', 5);
define('DRUPAL_BOOTSTRAP_PAGE_HEADER', 6);
define('DRUPAL_BOOTSTRAP_FULL', 8);
function drupal_bootstrap($phase = NULL, $new_phase = TRUE) {
	static $phases = array(DRUPAL_BOOTSTRAP_SESSION => 'drupal_session_initialize',
		DRUPAL_BOOTSTRAP_PAGE_HEADER => 'drupal_page_cache_header', DRUPAL_BOOTSTRAP_FULL => '_drupal_bootstrap_full');
	foreach ($phases as $number => $function) {
		if ($number <= $phase) { $function(new stdClass); }
	}
	return $phase;
}
function drupal_session_initialize() { usleep(1500); }
function drupal_page_cache_header(stdClass $cache) { usleep(1500); }
function _drupal_bootstrap_full() { drupal_path_initialize(); }
function drupal_path_initialize() {
	$path = trim(strtok($_SERVER['REQUEST_URI'], '?'), '/');
	$_GET['q'] = drupal_get_normal_path($path === '' ? 'node' : $path);
}
function drupal_get_normal_path($path, $path_language = NULL) { return $path; }
function module_invoke($module, $hook) { usleep(1500); }
class view {
	function execute($display_id = NULL) { usleep(1500); }
}
function drupal_http_request($url, array $options = array()) {
	@file_get_contents('http://127.0.0.1:9/inside');
	$result = new stdClass;
	$result->code = 200;
	return $result;
}
function node_page() {
	module_invoke('node', 'load');
	$view = new view;
	$view->execute();
	drupal_http_request('http://127.0.0.1:9/outside');
	return 'node';
}
function menu_execute_active_handler($path = NULL, $deliver = TRUE) {
	$result = call_user_func_array('node_page', array());
	echo drupal_render_page($result);
}
function drupal_render_page($page) {
	usleep(1500);
	return "<p>$page</p>";
}
drupal_bootstrap(DRUPAL_BOOTSTRAP_FULL);
menu_execute_active_handler();
# --- /node/4711/edit => drupal/node%2F*%2Fedit
# --- / => drupal/node
