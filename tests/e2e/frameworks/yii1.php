<?php
/* Yii 1.1: Yii extends YiiBase, the application is configured in its constructor, actions are objects. */
abstract class CApplication {
	public function __construct($config = null) {
		Yii::$app = $this;
		$this->init();
	}
	public function run() { $this->processRequest(); }
	abstract public function processRequest();
	protected function init() {}
}
class CUrlManager {
	public function parseUrl($request) { return trim(strtok($request, '?'), '/'); }
}
class CWebApplication extends CApplication {
	public $defaultController = 'site';
	protected function init() {
		parent::init();
		usleep(1500);
	}
	public function processRequest() {
		$manager = new CUrlManager;
		$this->runController($manager->parseUrl($_SERVER['REQUEST_URI']));
	}
	public function runController($route) {
		$parts = explode('/', $route === '' ? $this->defaultController : $route);
		$class = ucfirst($parts[0]) . 'Controller';
		$controller = new $class($parts[0]);
		$controller->run(isset($parts[1]) ? $parts[1] : '');
	}
}
abstract class CAction {
	public $controller, $id;
	public function __construct($controller, $id) {
		$this->controller = $controller;
		$this->id = $id;
	}
	public function runWithParams($params) {
		usleep(1500);
		$this->run();
		return true;
	}
}
class CInlineAction extends CAction {
	public function runWithParams($params) {
		usleep(1500);
		$method = new ReflectionMethod($this->controller, 'action' . $this->id);
		$method->invokeArgs($this->controller, $params);
		return true;
	}
}
class CController {
	public $id, $defaultAction = 'index';
	public function __construct($id) { $this->id = $id; }
	public function actions() { return array(); }
	public function run($actionID) {
		$actionID = $actionID === '' ? $this->defaultAction : $actionID;
		$map = $this->actions();
		$class = isset($map[$actionID]) ? $map[$actionID] : 'CInlineAction';
		$this->runAction(new $class($this, $actionID));
	}
	public function runAction($action) { $action->runWithParams(array()); }
	public function render($view, $data = null, $return = false) { echo "<h1>$view</h1>"; }
}
class YiiBase {
	public static $app;
	public static function createWebApplication($config = null) {
		return self::createApplication('CWebApplication', $config);
	}
	public static function createApplication($class, $config = null) { return new $class($config); }
}
class Yii extends YiiBase {
}
class CaptchaAction extends CAction {
	public function run() { echo 'captcha'; }
}
class SiteController extends CController {
	public function actions() { return array('captcha' => 'CaptchaAction'); }
	public function actionIndex() { $this->render('front page'); }
}
Yii::createWebApplication(array('name' => 'shop'))->run();
# --- /site/index => yii/site%2Findex
# --- /site/captcha => yii/site%2Fcaptcha
# --- / => yii/front page
