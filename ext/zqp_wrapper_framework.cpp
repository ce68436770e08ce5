/* The frameworks as rows, one routine that recognises them, and the few ways in which they tell an action's name. */
#include "zqp_wrapper_framework.h"

#include <algorithm>

#include "zqp_debug.h"
#include "zqp_naming.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_nosql.h"

namespace {

/* ---- how frameworks tell the name ---- */

/* Argument `i` as a text that may enter the name; null when it is none. */
const char *text_argument(zend_execute_data *execute_data, int i)
{
	const char *text = get_argument_char(execute_data, i);
	return text && *text ? text : NULL;
}

/* "<prefix><text>", the text normalised, becomes the name of an action that has none from a rule, a framework or the
 * script itself; 1 when it does. */
int take_name(const char *prefix, const char *text, int level TSRMLS_DC)
{
	if (!text || ZQG(action_name_level) >= ZQ_NAME_CONTROLLER) {
		return 0;
	}
	smart_str name = {};
	zq_append_text(&name, prefix);
	zq_append_action(&name, text);
	zq_set_action_name(zq_buffer_text(&name), level TSRMLS_CC);
	if (level == ZQ_NAME_FROZEN) {
		ZQ_LOG(ZQ_LOG_VERBOSE, "action name frozen to %s", ZQG(action_name));
	}
	return 1;
}

/* A literal as a template's parameter. */
template <size_t N>
struct literal {
	char text[N];
	consteval literal(const char (&from)[N]) { std::copy_n(from, N, text); }
};

/* The first argument is the full name. */
template <literal prefix>
int frozen_action(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	take_name(prefix.text, text_argument(execute_data, 0), ZQ_NAME_FROZEN TSRMLS_CC);
	return 0;
}

constexpr zq_wrapper_callback wrapper_yii_frozen_action = frozen_action<"WebAction/yii/">;
constexpr zq_wrapper_callback wrapper_zendframe_frozen_action = frozen_action<"WebAction/zendFramework/">;
constexpr zq_wrapper_callback wrapper_cake_frozen_action = frozen_action<"WebAction/cakePHP/">;
constexpr zq_wrapper_callback wrapper_drupal_frozen_action = frozen_action<"WebAction/drupal/">;
constexpr zq_wrapper_callback wrapper_think_frozen_action = frozen_action<"WebAction/thinkPHP/">;

/* CodeIgniter tells the class first; a request for its default method ends there. */
int wrapper_ci_router_set_class(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	take_name("WebAction/CI/", text_argument(execute_data, 0), ZQ_NAME_CONTROLLER TSRMLS_CC);
	return 0;
}

int wrapper_ci_router_set_method(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	const char *method = text_argument(execute_data, 0);
	if (!method || ZQG(action_name_level) != ZQ_NAME_CONTROLLER) {
		return 0;
	}
	char *name;
	spprintf(&name, 0, "%s%s%s", ZQG(action_name), "%2F", method);
	zq_set_action_name(name, ZQ_NAME_FROZEN TSRMLS_CC);
	ZQ_LOG(ZQ_LOG_VERBOSE, "action name frozen to %s", ZQG(action_name));
	return 0;
}

/* The controller's method, when it runs: its name, dotted, and its first argument. 1 when that became the name. */
int wrapper_laravel_frozen_action(zend_execute_data *execute_data, char *func TSRMLS_DC)
{
	char *dotted = estrdup(func), *prefix;
	zq_str_replace_to_dot(dotted);
	spprintf(&prefix, 0, "WebAction/%s/", dotted);
	int taken = take_name(prefix, text_argument(execute_data, 0), ZQ_NAME_FROZEN TSRMLS_CC);
	efree(prefix);
	efree(dotted);
	return taken;
}

/* The dispatcher knows the controller's method before it runs: dispatch(route, request, class, method). */
int wrapper_illuminate_dispatch(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	const char *cls = text_argument(execute_data, 2), *method = text_argument(execute_data, 3);
	if (!cls || !method) {
		return 0;
	}
	char *key;
	int len = spprintf(&key, 0, "%s::%s", cls, method);
	zq_watch_before(key, (size_t)len + 1, wrapper_laravel_frozen_action TSRMLS_CC);
	efree(key);
	return 0;
}

/* ---- the frameworks ---- */

/* Full name of a function as the watch tables want it; converts from a literal. */
struct watched_name {
	const char *text = NULL; /* null: none */
	size_t size = 0;         /* counts the NUL */
	consteval watched_name() = default;
	template <size_t N>
	consteval watched_name(const char (&name)[N]) : text(name), size(N)
	{
	}
};

struct naming_hook {
	watched_name name;
	zq_wrapper_callback callback;
};

/* A client's method through which its calls go. */
struct recorded_call {
	watched_name name;
	zq_performance_callback recorder;
};

struct framework {
	watched_name detected_on; /* called once at start-up, before anything below */
	const char *word;         /* for the log */
	watched_name components[5] = {};
	naming_hook names[2] = {};
	recorded_call client = {}; /* HTTP: not recorded once more by the built-in functions that it uses */
	recorded_call store = {};  /* a cache */
};

constexpr framework frameworks[] = {
	{.detected_on = "CI_Router::_set_routing",
		.word = "codeigniter",
		.components = {"CI_Output::_display", "CI_Loader::initialize", "CI_Loader::view"},
		.names = {{"CI_Router::set_class", wrapper_ci_router_set_class},
			{"CI_Router::set_method", wrapper_ci_router_set_method}}},
	{.detected_on = "YiiBase::createWebApplication",
		.word = "yii",
		.components = {"CWebApplication::init", "CWebApplication::processRequest", "CAction::runWithParams",
			"CInlineAction::runWithParams"},
		.names = {{"CWebApplication::runController", wrapper_yii_frozen_action},
			{"CController::render", wrapper_yii_frozen_action}}},
	{.detected_on = "Zend_Application::__construct",
		.word = "zend framework",
		.components = {"Zend_Controller_Front::dispatch", "Zend_Controller_Plugin_Broker::preDispatch",
			"Zend_Application::run"},
		.names = {{"Zend_Controller_Action::dispatch", wrapper_zendframe_frozen_action}},
		.client = {"Zend_Http_Client::request", performance_zend_http_client_request}},
	{.detected_on = "Configure::getInstance",
		.word = "cakePHP",
		.components = {"View::render", "Controller::render"},
		.names = {{"Controller::loadModel", wrapper_cake_frozen_action}}},
	{.detected_on = "wp_initial_constants",
		.word = "wordpress",
		.components = {"WP_Widget_Recent_Posts::widget", "WP_Widget_Recent_Comments::widget", "wp_head", "wp_footer"},
		.client = {"WP_Http::request", performance_wp_http_request}},
	{.detected_on = "drupal_bootstrap",
		.word = "drupal",
		.components = {"drupal_page_cache_header", "drupal_session_initialize", "drupal_render_page", "module_invoke",
			"view::execute"},
		.names = {{"drupal_get_normal_path", wrapper_drupal_frozen_action}},
		.client = {"drupal_http_request", performance_drupal_http_request}},
	{.detected_on = "discuz_application::instance", .word = "discuz"},
	{.detected_on = "Wind::init",
		.word = "phpwind",
		.components = {"Wekit::init", "WindWebFrontController::run", "WindSimpleController::doAction",
			"WindView::render"}},
	{.detected_on = "JVersion::getShortVersion",
		.word = "joomla",
		.components = {"JController::execute", "JView::display", "JDocumentRendererModules::render"}},
	{.detected_on = "yii\\base\\Application::__construct",
		.word = "yii2",
		.components = {"yii\\base\\Controller::runAction", "yii\\base\\View::render", "yii\\base\\Controller::render"},
		.names = {{"yii\\base\\Module::runAction", wrapper_yii_frozen_action}},
		.store = {"yii\\redis\\Connection::executeCommand", performance_yiiredisConnection_executeCommand}},
	{.detected_on = "Illuminate\\Foundation\\Application::__construct",
		.word = "laravel",
		.names = {{"Illuminate\\Routing\\ControllerDispatcher::dispatch", wrapper_illuminate_dispatch}}},
	{.detected_on = "Think\\Dispatcher::getModule",
		.word = "thinkPHP",
		.names = {{"controller", wrapper_think_frozen_action}}},
};

void add_hooks(const framework &found TSRMLS_DC)
{
	for (const watched_name &part : found.components) {
		if (part.text) {
			zq_watch_before(part.text, part.size, wrapper_add_components TSRMLS_CC);
		}
	}
	for (const naming_hook &hook : found.names) {
		if (hook.name.text) {
			zq_watch_before(hook.name.text, hook.name.size, hook.callback TSRMLS_CC);
		}
	}
	if (found.client.recorder) {
		zq_watch_before(found.client.name.text, found.client.name.size, wrapper_should_ignore_external TSRMLS_CC);
		zq_watch_after(found.client.name.text, found.client.name.size, found.client.recorder TSRMLS_CC);
	}
	if (found.store.recorder) {
		zq_watch_after(found.store.name.text, found.store.name.size, found.store.recorder TSRMLS_CC);
	}
}

int wrapper_framework(zend_execute_data *, char *func TSRMLS_DC)
{
	for (const framework &candidate : frameworks) {
		if (!ZQG(use_frame) && !strcmp(candidate.detected_on.text, func)) {
			ZQG(use_frame) = 1;
			ZQ_LOG(ZQ_LOG_VERBOSE, "framework is detected: %s", candidate.word);
			add_hooks(candidate TSRMLS_CC);
		}
	}
	return 0;
}

} // namespace

void zq_watch_frameworks(TSRMLS_D)
{
	for (const framework &candidate : frameworks) {
		zq_watch_before(candidate.detected_on.text, candidate.detected_on.size, wrapper_framework TSRMLS_CC);
	}
}
