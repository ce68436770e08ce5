<?php
/* CodeIgniter 3: front controller, a router that the application extends, a view. */
class CI_URI {
	public $segments;
	public function __construct() {
		$this->segments = array_values(array_filter(explode('/', strtok($_SERVER['REQUEST_URI'], '?')), 'strlen'));
	}
}
class CI_Router {
	public $uri, $class = '', $method = 'index';
	public function __construct($routing = NULL) {
		$this->uri =& load_class('URI');
		$this->_set_routing();
		if (is_array($routing)) {
			empty($routing['controller']) OR $this->set_class($routing['controller']);
			empty($routing['function']) OR $this->set_method($routing['function']);
		}
	}
	protected function _set_routing() {
		$this->uri->segments ? $this->_parse_routes() : $this->_set_default_controller();
	}
	protected function _parse_routes() { $this->_set_request(array_values($this->uri->segments)); }
	protected function _set_default_controller() {
		$this->set_class('blog');
		$this->set_method('index');
	}
	protected function _set_request($segments = array()) {
		$segments = $this->_validate_request($segments);
		$this->set_class($segments[0]);
		if (isset($segments[1])) { $this->set_method($segments[1]); }
	}
	protected function _validate_request($segments) { return $segments; }
	public function set_class($class) { $this->class = str_replace(array('/', '.'), '', $class); }
	public function set_method($method) { $this->method = $method; }
}
class MY_Router extends CI_Router {
	protected function _validate_request($segments) { return parent::_validate_request($segments); }
}
class CI_Loader {
	public function initialize() { usleep(1500); }
	public function view($view, $vars = array(), $return = FALSE) {
		usleep(1500);
		get_instance()->output->final_output .= "<h1>$view</h1>";
	}
}
class CI_Output {
	public $final_output = '';
	public function _display($output = '') {
		usleep(1500);
		echo $output === '' ? $this->final_output : $output;
	}
}
class CI_Controller {
	private static $instance;
	public $load, $output;
	public function __construct() {
		self::$instance =& $this;
		$this->load =& load_class('Loader');
		$this->output =& load_class('Output');
		$this->load->initialize();
	}
	public static function &get_instance() { return self::$instance; }
}
class Blog extends CI_Controller {
	public function index() { $this->load->view('list'); }
	public function post($id = 0) { $this->load->view("post $id"); }
}
function &get_instance() { return CI_Controller::get_instance(); }
function &load_class($class) {
	static $loaded = array();
	if (!isset($loaded[$class])) {
		$name = class_exists("MY_$class", FALSE) ? "MY_$class" : "CI_$class";
		$loaded[$class] = new $name();
	}
	return $loaded[$class];
}
$RTR =& load_class('Router');
$class = ucfirst($RTR->class);
$CI = new $class();
call_user_func_array(array(&$CI, $RTR->method), array_slice($RTR->uri->segments, 2));
$OUT =& load_class('Output');
$OUT->_display();
# --- / => CI/blog%2Findex
# --- /blog/post/7 => CI/blog%2Fpost
# --- /blog => CI/blog
