<?php
/* phpwind 9: the framework initialises itself when its file is loaded; a front controller runs a simple controller. */
class Wind {
	public static function init() {}
}
Wind::init();
class Wekit {
	public static function init($type) { usleep(1500); }
	public static function run($name) {
		self::init($name);
		$front = new WindWebFrontController($name, array());
		$front->run();
	}
}
class WindWebFrontController {
	public function run() {
		usleep(1500);
		$controller = new IndexController;
		$controller->doAction($this);
	}
}
class WindView {
	public function render($display = false) {
		usleep(1500);
		echo '<p>phpwind</p>';
	}
}
abstract class WindSimpleController {
	public function doAction($handlerAdapter) {
		usleep(1500);
		$this->run();
		$view = new WindView;
		$view->render(true);
	}
	abstract public function run();
}
class IndexController extends WindSimpleController {
	public function run() {}
}
Wekit::run('phpwind');
# --- /read.php => URI/read.php
