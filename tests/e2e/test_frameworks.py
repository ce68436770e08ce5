"""Frameworks, each as a small application with the real one's names and ways of calling: that the agent knows what the engine
calls the watched functions, and what the action is called in the end."""
import pytest

from support.cases import cases, program

VERBOSE = {"zqs.agent_log_level": "VERBOSE"}
RULE = """[{"name":"Rule","match":{"method":0,"match":0,"value":""},"split":{}}]"""
OUTSIDE = "http:%2F%2F127.0.0.1:9%2Foutside"

# application: (word in the log, its components)
FRAMEWORKS = {
    "codeigniter": ("codeigniter", ["CI_Output::_display", "CI_Loader::initialize", "CI_Loader::view"]),
    "yii1": ("yii", ["CWebApplication::init", "CWebApplication::processRequest", "CInlineAction::runWithParams",
                     "CAction::runWithParams"]),
    "yii2": ("yii2", [r"yii\base\Controller::runAction", r"yii\base\View::render", r"yii\base\Controller::render"]),
    "zend": ("zend framework", ["Zend_Controller_Front::dispatch", "Zend_Controller_Plugin_Broker::preDispatch",
                                "Zend_Application::run"]),
    "cakephp": ("cakePHP", ["View::render", "Controller::render"]),
    "wordpress": ("wordpress", ["WP_Widget_Recent_Posts::widget", "WP_Widget_Recent_Comments::widget", "wp_head", "wp_footer"]),
    "drupal": ("drupal", ["drupal_page_cache_header", "drupal_session_initialize", "drupal_render_page", "module_invoke",
                          "view::execute"]),
    "discuz": ("discuz", []),
    "phpwind": ("phpwind", ["Wekit::init", "WindWebFrontController::run", "WindSimpleController::doAction", "WindView::render"]),
    "joomla": ("joomla", ["JController::execute", "JView::display", "JDocumentRendererModules::render"]),
    "thinkphp": ("thinkPHP", []),
    "laravel": ("laravel", []),
}
CALL_OUT = {"zend", "wordpress", "drupal"}


def component(function):
    """The record's name; JSON escapes the backslashes of namespaces."""
    cls, _, method = function.rpartition("::")
    return f"PHP/{cls or 'NULL'}/{method}".replace("\\", "\\\\")


@pytest.mark.parametrize("name", FRAMEWORKS)
def test_application(site, name):
    """Each of its requests gets its name; all together show every component."""
    word, components = FRAMEWORKS[name]
    site.daemon.configure({"zqs.auto_action_naming": "0"})
    requests, timed, frozen = cases(f"../frameworks/{name}.php"), set(), []
    for request in requests:
        (code, action), uri = request.values, request.id
        result = site.cgi(code, uri, ini=VERBOSE)
        assert result.body.strip(), "the application shows its page"
        assert (uri, result.metric.action) == (uri, "WebAction/" + action)
        assert [call.name.rpartition("/")[0] for call in result.metric.calls] == [OUTSIDE] * (name in CALL_OUT)
        timed |= set(result.metric.components)
        is_final = not action.startswith("URI/") and action != "CI/blog"     # CodeIgniter may still tell a method
        frozen += ["WebAction/" + action] * is_final
    assert {component(function) for function in components} <= timed
    assert site.logged("framework is detected: ") == [word] * len(requests)
    assert site.logged("action name frozen to ") == frozen


def test_the_first_framework_counts(site):
    metric = site.cgi(program("naming/first_counts.php"), ini=VERBOSE).metric
    assert metric.action == "WebAction/URI/index.php" and "PHP/CWebApplication/init" not in metric.components
    assert site.logged("framework is detected: ") == ["phpwind"] and "frozen" not in site.log()


NAMING = [case for name in ("drupal", "codeigniter", "laravel", "spelling") for case in cases(f"naming/{name}.php")]


@pytest.mark.parametrize("code, action", NAMING)
def test_who_may_name_an_action(site, code, action):
    """Where a rule is to win, there is one."""
    site.daemon.configure({"zqs.naming.rules": RULE} if action == "Rule/" else {})
    assert site.cgi(code).metric.action == "WebAction/" + action
