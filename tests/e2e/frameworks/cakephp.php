<?php
/* CakePHP 1.3, the last with a Configure object: a controller loads its models before its action, then renders. */
class Object {
}
class Configure extends Object {
	public $debug = 0;
	static function &getInstance($boot = true) {
		static $instance = array();
		if (!$instance) { $instance[0] = new Configure; }
		return $instance[0];
	}
	static function write($config, $value = null) {
		$_this =& Configure::getInstance();
		$_this->$config = $value;
	}
}
class View extends Object {
	function render($action = null, $layout = null, $file = null) {
		usleep(1500);
		return "<h1>$action</h1>";
	}
}
class Controller extends Object {
	var $uses = array(), $modelClass = 'Post', $output;
	function constructClasses() {
		foreach ($this->uses as $modelClass) { $this->loadModel($modelClass); }
	}
	function loadModel($modelClass = null, $id = null) {
		$modelClass = $modelClass === null ? $this->modelClass : $modelClass;
		$this->{$modelClass} = new stdClass;
		return true;
	}
	function render($action = null, $layout = null, $file = null) {
		usleep(1500);
		$view = new View;
		$this->output .= $view->render($action, $layout, $file);
		return $this->output;
	}
}
class PostsController extends Controller {
	var $uses = array('Blog.Post', 'Author');
	function index() {}
}
class PagesController extends Controller {
	function index() { $this->loadModel(); }
}
class Dispatcher extends Object {
	function dispatch($url) {
		$parts = explode('/', $url ?: 'posts') + array(1 => 'index');
		$class = ucfirst($parts[0]) . 'Controller';
		$controller = new $class;
		$controller->constructClasses();
		$controller->{$parts[1]}();
		$controller->render($parts[1]);
		echo $controller->output;
	}
}
Configure::write('debug', 0);
$Dispatcher = new Dispatcher;
$Dispatcher->dispatch(trim(strtok($_SERVER['REQUEST_URI'], '?'), '/'));
# --- /posts => cakePHP/Blog.Post
# --- /pages/index => URI/pages%2Findex
