<?php
/* Joomla 2.5: the version is asked for while the libraries load; a component's controller shows a view; a module renderer. */
class JVersion {
	public $RELEASE = '2.5', $DEV_LEVEL = '28';
	public function getShortVersion() { return $this->RELEASE . '.' . $this->DEV_LEVEL; }
}
if (!defined('JVERSION')) {
	$version = new JVersion;
	define('JVERSION', $version->getShortVersion());
}
class JObject {
}
class JView extends JObject {
	public function display($tpl = null) {
		usleep(1500);
		echo '<p>article</p>';
	}
}
class JController extends JObject {
	public function execute($task) {
		usleep(1500);
		return $this->$task();
	}
	public function display($cachable = false, $urlparams = false) {
		$view = new ContentViewArticle;
		$view->display();
		return $this;
	}
}
class ContentViewArticle extends JView {
	public function display($tpl = null) { parent::display($tpl); }
}
class ContentController extends JController {
}
class JDocumentRenderer extends JObject {
}
class JDocumentRendererModules extends JDocumentRenderer {
	public function render($position, $params = array(), $content = null) {
		usleep(1500);
		return '';
	}
}
class JSite {
	public function dispatch() {
		$controller = new ContentController;
		$controller->execute('display');
	}
	public function render() {
		$renderer = new JDocumentRendererModules;
		echo $renderer->render('left');
	}
}
$app = new JSite;
$app->dispatch();
$app->render();
# --- /article => URI/article
