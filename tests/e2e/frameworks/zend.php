<?php
/* Zend Framework 1.12: application, bootstrap, front controller with its plugin broker, action controller, HTTP client. */
class Zend_Application {
	protected $_environment;
	public function __construct($environment, $options = null, $suppressNotFoundWarnings = null) {
		$this->_environment = (string) $environment;
	}
	public function bootstrap($resource = null) { return $this; }
	public function run() {
		usleep(1500);
		$bootstrap = new Bootstrap;
		$bootstrap->run();
	}
}
class Zend_Application_Bootstrap_Bootstrap {
	public function run() { return Zend_Controller_Front::getInstance()->dispatch(); }
}
class Bootstrap extends Zend_Application_Bootstrap_Bootstrap {
}
class Zend_Controller_Plugin_Broker {
	public function preDispatch($request) { usleep(1500); }
}
class Zend_Controller_Front {
	private static $_instance;
	public static function getInstance() { return self::$_instance ?: self::$_instance = new self; }
	public function dispatch($request = null, $response = null) {
		usleep(1500);
		$plugins = new Zend_Controller_Plugin_Broker;
		$plugins->preDispatch($request);
		$dispatcher = new Zend_Controller_Dispatcher_Standard;
		$dispatcher->dispatch(trim(strtok($_SERVER['REQUEST_URI'], '?'), '/'));
	}
}
class Zend_Controller_Dispatcher_Standard {
	public function dispatch($path) {
		$controller = new IndexController;
		$controller->dispatch(($path ?: 'index') . 'Action');
	}
}
abstract class Zend_Controller_Action {
	public function preDispatch() {}
	public function dispatch($action) {
		$this->preDispatch();
		$this->$action();
	}
}
class Zend_Http_Client {
	protected $uri;
	public function __construct($uri = null, $config = null) { $this->uri = $uri; }
	public function getUri($as_string = false) { return $this->uri; }
	public function request($method = null) {
		return @file_get_contents('http://127.0.0.1:9/inside');
	}
}
class IndexController extends Zend_Controller_Action {
	public function indexAction() {
		$client = new Zend_Http_Client('http://127.0.0.1:9/outside');
		var_dump($client->request());
	}
}
$application = new Zend_Application('production', array());
$application->bootstrap()->run();
# --- /index => zendFramework/indexAction
