<?php
/* Yii 2.0: an application is a module, runs a route, and renders through a view component. */
namespace yii\base {
	class Object {
		public function __construct($config = []) {
			foreach ($config as $name => $value) { $this->$name = $value; }
			$this->init();
		}
		public function init() {}
	}
	class Module extends Object {
		public $id;
		public function runAction($route, $params = []) {
			list($controller, $actionID) = $this->createController($route);
			return $controller->runAction($actionID, $params);
		}
		public function createController($route) {
			list($id, $actionID) = explode('/', ($route === '' ? 'site' : $route) . '/');
			$class = 'app\controllers\\' . ucfirst($id) . 'Controller';
			return [new $class($id, $this), $actionID];
		}
	}
	abstract class Application extends Module {
		public function __construct($config = []) {
			\Yii::$app = $this;
			parent::__construct($config);
		}
		public function run() {
			echo $this->handleRequest($_SERVER['REQUEST_URI']);
			return 0;
		}
		abstract public function handleRequest($request);
	}
	class InlineAction {
		public $controller, $actionMethod;
		public function __construct($controller, $actionMethod) {
			$this->controller = $controller;
			$this->actionMethod = $actionMethod;
		}
		public function runWithParams($params) {
			return call_user_func_array([$this->controller, $this->actionMethod], $params);
		}
	}
	class Controller {
		public $id, $module, $defaultAction = 'index';
		public function __construct($id, $module) {
			$this->id = $id;
			$this->module = $module;
		}
		public function runAction($id, $params = []) {
			usleep(1500);
			$action = new InlineAction($this, 'action' . ucfirst($id === '' ? $this->defaultAction : $id));
			return $action->runWithParams($params);
		}
		public function render($view, $params = []) {
			usleep(1500);
			return $this->getView()->render($view, $params, $this);
		}
		public function getView() { return new \yii\web\View; }
	}
	class View {
		public function render($view, $params = [], $context = null) {
			usleep(1500);
			return "<h1>$view</h1>";
		}
	}
}
namespace yii\web {
	class Application extends \yii\base\Application {
		public function handleRequest($request) {
			return $this->runAction(trim(strtok($request, '?'), '/'), []);
		}
	}
	class Controller extends \yii\base\Controller {
	}
	class View extends \yii\base\View {
	}
}
namespace app\controllers {
	class SiteController extends \yii\web\Controller {
		public function actionIndex() { return $this->render('index'); }
	}
}
namespace {
	class Yii {
		public static $app;
	}
	(new yii\web\Application(['id' => 'shop']))->run();
}
# --- /site/index?page=12 => yii/site%2Findex
# --- / => URI/index
