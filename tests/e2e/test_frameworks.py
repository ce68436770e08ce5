"""Frameworks, each as a small application with the real one's names and ways of calling: what the engine calls the watched
functions, that the agent knows them by these names, and what the action is called in the end."""
import time
from dataclasses import dataclass, field
from pathlib import Path

import pytest

APPLICATIONS = Path(__file__).parent / "frameworks"
VERBOSE = {"zqs.agent_log_level": "VERBOSE"}


def application(name):
    return (APPLICATIONS / f"{name}.php").read_text().removeprefix("<?php\n")


@dataclass
class Framework:
    word: str                       # in the log
    detected_on: str
    telling: list = field(default_factory=list)     # calls that give the name
    components: list = field(default_factory=list)
    client: str = None
    actions: dict = field(default_factory=dict)     # by URI


FRAMEWORKS = {
    "codeigniter": Framework(
        "codeigniter", "CI_Router::_set_routing", ["CI_Router::set_class", "CI_Router::set_method"],
        ["CI_Output::_display", "CI_Loader::initialize", "CI_Loader::view"],
        actions={"/": "CI/blog%2Findex", "/blog/post/7": "CI/blog%2Fpost", "/blog": "CI/blog"}),
    "yii1": Framework(
        "yii", "YiiBase::createWebApplication", ["CWebApplication::runController", "CController::render"],
        ["CWebApplication::init", "CWebApplication::processRequest", "CInlineAction::runWithParams",
         "CAction::runWithParams"],
        actions={"/site/index": "yii/site%2Findex", "/site/captcha": "yii/site%2Fcaptcha", "/": "yii/front page"}),
    "yii2": Framework(
        "yii2", r"yii\base\Application::__construct", [r"yii\base\Module::runAction"],
        [r"yii\base\Controller::runAction", r"yii\base\View::render", r"yii\base\Controller::render"],
        actions={"/site/index?page=12": "yii/site%2Findex", "/": "URI/index"}),
    "zend": Framework(
        "zend framework", "Zend_Application::__construct", ["Zend_Controller_Action::dispatch"],
        ["Zend_Controller_Front::dispatch", "Zend_Controller_Plugin_Broker::preDispatch", "Zend_Application::run"],
        "Zend_Http_Client::request", {"/index": "zendFramework/indexAction"}),
    "cakephp": Framework(
        "cakePHP", "Configure::getInstance", ["Controller::loadModel"], ["View::render", "Controller::render"],
        actions={"/posts": "cakePHP/Blog.Post", "/pages/index": "URI/pages%2Findex"}),
    "wordpress": Framework(
        "wordpress", "wp_initial_constants", [],
        ["WP_Widget_Recent_Posts::widget", "WP_Widget_Recent_Comments::widget", "wp_head", "wp_footer"],
        "WP_Http::request", {"/2017/hello": "URI/*%2Fhello"}),
    "drupal": Framework(
        "drupal", "drupal_bootstrap", ["drupal_get_normal_path"],
        ["drupal_page_cache_header", "drupal_session_initialize", "drupal_render_page", "module_invoke", "view::execute"],
        "drupal_http_request", {"/node/4711/edit": "drupal/node%2F*%2Fedit", "/": "drupal/node"}),
    "discuz": Framework("discuz", "discuz_application::instance", actions={"/forum.php": "URI/forum.php"}),
    "phpwind": Framework(
        "phpwind", "Wind::init", [],
        ["Wekit::init", "WindWebFrontController::run", "WindSimpleController::doAction", "WindView::render"],
        actions={"/read.php": "URI/read.php"}),
    "joomla": Framework(
        "joomla", "JVersion::getShortVersion", [], ["JController::execute", "JView::display", "JDocumentRendererModules::render"],
        actions={"/article": "URI/article"}),
    "thinkphp": Framework(
        "thinkPHP", r"Think\Dispatcher::getModule", ["controller"], actions={"/home/index": "thinkPHP/Index"}),
    "laravel": Framework(
        "laravel", r"Illuminate\Foundation\Application::__construct",
        [r"Illuminate\Routing\ControllerDispatcher::dispatch"], [],
        actions={"/users/123": "App.Http.Controllers.UserController::show/*", "/users": "URI/users"}),
}
URIS = [(name, uri) for name, framework in FRAMEWORKS.items() for uri in framework.actions]


def component(function):
    """The record's name; JSON escapes the backslashes of namespaces."""
    cls, _, method = function.rpartition("::")
    return f"PHP/{cls or 'NULL'}/{method}".replace("\\", "\\\\")


def log_lines(site, text):
    return [line.partition(text)[2] for line in site.log().splitlines() if text in line]


@pytest.mark.parametrize("name", FRAMEWORKS)
def test_calls_are_known_by_the_names_that_the_engine_gives_them(site, name):
    framework = FRAMEWORKS[name]
    site.daemon.configure({"zqs.profile_end_time": str(int(time.monotonic()) + 60)})
    entered, components, calls = set(), set(), []
    for uri in framework.actions:
        result = site.cgi(application(name), uri)
        assert result.body.strip(), "the application shows its page"
        entered |= {event.name for event in result.events if event.event == "enter function"}
        components |= set(result.metric.components)
        calls += [call.name.rpartition("/")[0] for call in result.metric.calls]
    watched = {framework.detected_on, *framework.telling, *framework.components, *filter(None, [framework.client])}
    assert watched <= entered, f"never called under that name: {watched - entered}"
    timed = {component(function) for function in framework.components}
    assert timed <= components, f"no component: {timed - components}"
    assert calls == (["http:%2F%2F127.0.0.1:9%2Foutside"] if framework.client else []) * len(framework.actions)


@pytest.mark.parametrize("name, uri", URIS, ids=[f"{name} {uri}" for name, uri in URIS])
def test_action_gets_its_name(site, name, uri):
    framework = FRAMEWORKS[name]
    site.daemon.configure({"zqs.auto_action_naming": "0"})
    action = f"WebAction/{framework.actions[uri]}"
    assert site.cgi(application(name), uri, ini=VERBOSE).metric.action == action
    assert log_lines(site, "framework is detected: ") == [framework.word]
    is_final = "/URI/" not in action and uri != "/blog"     # CodeIgniter may still tell a method
    assert log_lines(site, "action name frozen to ") == [action] * is_final


BOOTSTRAPS = r"""
class Wind { static function init() { } }
class CWebApplication { function init() { usleep(1500); } function runController($route) { $this->init(); } }
class YiiBase { static function createWebApplication() { return new CWebApplication; } }
function drupal_bootstrap() { drupal_get_normal_path("node/1"); }
function drupal_get_normal_path($path) { return $path; }
class Yii extends YiiBase { static function run() { self::createWebApplication()->runController("a/b"); } }
"""


def test_the_first_framework_counts(site):
    result = site.cgi(BOOTSTRAPS + "Wind::init(); Yii::run(); drupal_bootstrap(); Wind::init();", ini=VERBOSE)
    assert result.metric.action == "WebAction/URI/index.php"
    assert log_lines(site, "framework is detected: ") == ["phpwind"] and "frozen" not in site.log()
    assert "PHP/CWebApplication/init" not in result.metric.components


RULE = """[{"name":"Rule","match":{"method":0,"match":0,"value":""},"split":{}}]"""
DRUPAL = "function drupal_bootstrap() { } function drupal_get_normal_path($path) { } drupal_bootstrap(); "
CODEIGNITER = "class CI_Router { function _set_routing() { } function set_class($c) { } function set_method($m) { } } " \
    "$r = new CI_Router; $r->_set_routing(); "


@pytest.mark.parametrize("code, settings, action", [
    (DRUPAL + "drupal_get_normal_path('a'); drupal_get_normal_path('b');", {}, "drupal/a"),
    (DRUPAL + "drupal_get_normal_path('');", {}, "URI/index.php"),
    (DRUPAL + "drupal_get_normal_path(12); drupal_get_normal_path(null); drupal_get_normal_path(array('a'));", {}, "URI/index.php"),
    (DRUPAL + "@drupal_get_normal_path();", {}, "URI/index.php"),
    (DRUPAL + "drupal_get_normal_path('/');", {}, "drupal/index"),
    (DRUPAL + "drupal_get_normal_path('a');", {"zqs.naming.rules": RULE}, "Rule/"),
    (DRUPAL + "Drupal_Get_Normal_Path('a');", {}, "drupal/a"),     # the engine reports names as they are declared
    ("function DRUPAL_bootstrap() { } function drupal_get_normal_path($path) { } drupal_bootstrap(); drupal_get_normal_path('a');",
     {}, "URI/index.php"),
    (CODEIGNITER + "$r->set_method('view');", {}, "URI/index.php"),
    (CODEIGNITER + "$r->set_class('Blog12'); $r->set_method('view/12'); $r->set_method('other'); $r->set_class('x');", {},
     "CI/Blog*%2Fview/12"),
    (CODEIGNITER + "$r->set_class('Blog'); $r->set_class('Other'); $r->set_method(''); $r->set_method(7);", {}, "CI/Blog"),
    (CODEIGNITER + "$r->set_class('Blog'); $r->set_method('view');", {"zqs.naming.rules": RULE}, "Rule/"),
    (CODEIGNITER + "drupal_get_normal_path('a'); function drupal_get_normal_path($p) { }", {}, "URI/index.php"),
])
def test_who_may_name_an_action(site, code, settings, action):
    site.daemon.configure(settings)
    assert site.cgi(code).metric.action == "WebAction/" + action


LARAVEL = r"""namespace Illuminate\Foundation { class Application { function __construct() { } } }
namespace Illuminate\Routing { class ControllerDispatcher { function dispatch($route, $request, $class, $method) {
    return call_user_func_array(array(is_object($class) ? $class : new $class, $method), $route); } } }
namespace Shop { class Base { function shared($id) { } }
    class User_7 extends Base { function show($id = 0) { } static function any($id) { } } }
namespace { new Illuminate\Foundation\Application; $d = new Illuminate\Routing\ControllerDispatcher; %s }"""


@pytest.mark.parametrize("dispatches, action", [
    (r"$d->dispatch(array('a/12'), 0, 'Shop\User_7', 'show');", "Shop.User_7::show/a%2F*"),
    (r"$d->dispatch(array('9'), 0, 'Shop\User_7', 'any');", "Shop.User_7::any/9"),
    (r"$d->dispatch(array(9), 0, 'Shop\User_7', 'show');", "URI/index.php"),
    (r"$d->dispatch(array(), 0, 'Shop\User_7', 'show');", "URI/index.php"),
    (r"$d->dispatch(array('9'), 0, new Shop\User_7, 'show');", "URI/index.php"),
    # an inherited method runs under the name of the class that declares it
    (r"$d->dispatch(array('9'), 0, 'Shop\User_7', 'shared');", "URI/index.php"),
    (r"$d->dispatch(array(9), 0, 'Shop\User_7', 'show'); $d->dispatch(array('b'), 0, 'Shop\User_7', 'any');",
     "Shop.User_7::any/b"),
])
def test_controllers_of_laravel(site, dispatches, action):
    assert site.cgi(LARAVEL % dispatches).metric.action == "WebAction/" + action


def test_a_name_given_by_the_script_stays(site):
    code = 'if (function_exists("vantor_start_webaction")) vantor_start_webaction("mine"); ' + DRUPAL + \
        'drupal_get_normal_path("a"); if (function_exists("vantor_end_webaction")) vantor_end_webaction();'
    assert [metric.action for metric in site.cli(code).metrics] == ["WebAction/API/mine"]
