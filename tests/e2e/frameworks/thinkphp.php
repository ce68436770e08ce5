<?php
/* ThinkPHP 3.2: the dispatcher resolves module and controller in private static methods; controller() makes the object. */
namespace Think {
	class Dispatcher {
		static public function dispatch() {
			$path = array_values(array_filter(explode('/', strtok($_SERVER['REQUEST_URI'], '?')), 'strlen'));
			define('MODULE_NAME', self::getModule(isset($path[0]) ? $path[0] : ''));
			define('CONTROLLER_NAME', self::getController(isset($path[1]) ? $path[1] : ''));
		}
		static private function getModule($var) { return $var === '' ? 'Home' : ucfirst($var); }
		static private function getController($var) { return $var === '' ? 'Index' : ucfirst($var); }
	}
	class App {
		static public function run() {
			Dispatcher::dispatch();
			self::exec();
		}
		static public function exec() {
			$module = controller(CONTROLLER_NAME, '');
			$method = new \ReflectionMethod($module, 'index');
			$method->invoke($module);
		}
	}
	abstract class Controller {
	}
}
namespace Home\Controller {
	class IndexController extends \Think\Controller {
		public function index() { echo 'home'; }
	}
}
namespace {
	function controller($name, $path = '') {
		$class = MODULE_NAME . '\Controller\\' . $name . 'Controller';
		return new $class;
	}
	Think\App::run();
}
# --- /home/index => thinkPHP/Index
