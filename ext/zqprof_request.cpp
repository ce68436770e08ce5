/* Request start and end: whether this request is monitored, what it needs while it is, and what it leaves behind.
 *
 * A request is never failed by the agent: what bails out here leaves it unmonitored. */
#include "php_zqprof.h"

#include "zqp_action.h"
#include "zqp_board.h"
#include "zqp_debug.h"
#include "zqp_details.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_naming.h"
#include "zqp_naming_uri.h"
#include "zqp_open_calls.h"
#include "zqp_quick.h"
#include "zqp_radar.h"
#include "zqp_trace_context.h"
#include "zqprof_settings.h"

static const double random_max = 2147483647.0; /* what random() gives at most */

/* ---- request start ----------------------------------------------------------------------------------------------- */

static void name_application(TSRMLS_D)
{
	const char *configured = zend_ini_string((char *)"zqs.app_name", sizeof("zqs.app_name"), 0);
	int automatic = zq_ini_number("zqs.auto_app_naming");
	const char *base = automatic == 0 ? NULL : automatic == 1 ? ZQ_SERVER_TEXT("SERVER_NAME") : configured;
	const char *port = base ? ZQ_SERVER_TEXT("SERVER_PORT") : NULL;
	if (port) {
		spprintf(&ZQG(app_name), 0, "%s:%s", base, port);
	} else {
		ZQG(app_name) = estrdup(base ? base : configured ? configured : "");
	}
}

/* A script on the command line is its own name, which no rule may replace. 1: the run stays monitored. */
static int accept_command_line(const char *script TSRMLS_DC)
{
	if (!script) {
		return 1; /* the configuration keeps $_SERVER empty: monitored, without a name */
	}
	if (!*script) {
		ZQ_LOG(ZQ_LOG_VERBOSE, "agent disabled due to CLI and NO script");
		return 0;
	}
	smart_str name = {};
	zq_append_text(&name, "BackgroundAction/Script/");
	zq_append_action(&name, script);
	zq_set_action_name(zq_buffer_text(&name), ZQ_NAME_FROZEN TSRMLS_CC);
	ZQ_LOG(ZQ_LOG_VERBOSE, "action name frozen to %s", ZQG(action_name));
	return 1;
}

static int accept_web(const char *uri TSRMLS_DC)
{
	if (!uri) {
		ZQ_LOG(ZQ_LOG_VERBOSE, "agent disabled due to NO uri");
	}
	return uri != NULL;
}

/* Settings, then what the daemon decided for the application. */
static int accept_configuration(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->agent_enabled = zq_ini_number("zqs.agent_enabled");
	if (!g->agent_enabled) {
		ZQ_LOG(ZQ_LOG_VERBOSE, "agent disabled by ini");
		return 0;
	}
	zq_set_license(TSRMLS_C);
	update_app_info((long)(g->rinit_tick / 1000000) TSRMLS_CC);
	if (!g->agent_enabled) {
		ZQ_LOG(ZQ_LOG_VERBOSE, "agent disabled by server");
	}
	return g->agent_enabled;
}

/* Between the low and the high mark tracing is kept with a probability that falls from 1 to 0. */
static int keep_trace_under_load(int used, int low, int high)
{
	srandom((unsigned)cycle_timer());
	return random() <= ((double)high - used) * random_max / ((double)high - low);
}

/* Sheds load when the host's memory is short. */
static int accept_load(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int used = g->resource_used;
	if (!g->resource_enabled) {
		return 1;
	}
	if (used < g->resource_safe) {
		int measured = get_memory_used();
		used = measured > used ? measured : used;
		if (used >= g->resource_safe) { /* following requests stop without measuring */
			zq_app_resource_used(used TSRMLS_CC);
		}
	}
	if (used >= g->resource_safe) {
		ZQ_LOG(ZQ_LOG_DEBUG, "disable agent by resource safe used: %d", used);
		return 0;
	}
	if (used >= g->resource_high ||
		(used > g->resource_low && !keep_trace_under_load(used, g->resource_low, g->resource_high))) {
		g->action_tracer_enabled = 0;
	}
	return 1;
}

static int accept_url(const char *uri TSRMLS_DC)
{
	if (!ZQG(urls_captured) || in_urls_captured(uri, ZQG(urls_captured))) {
		return 1;
	}
	ZQ_LOG(ZQ_LOG_VERBOSE, "[%s] not in urls_captured, agent disabled", uri ? uri : "(null)");
	return 0;
}

/* The identity that a calling application sent along. An empty id counts as none. */
static void read_caller(const char *identity TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!identity || !is_same_account(g->vantor_id_secret, identity)) {
		return;
	}
	g->transaction_parent = 1;
	for (auto field : {&g->transaction_req_id, &g->transaction_id}) {
		char *value = get_string_param(identity, field == &g->transaction_id ? ";x=" : ";r=", ';');
		if (value && !*value) {
			efree(value);
			value = NULL;
		}
		zq_str_replace_ln(value); /* goes into headers of calls and of the answer */
		*field = value;
	}
}

static void start_web_action(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	init_action_name(TSRMLS_C);
	ZQ_LOG(ZQ_LOG_VERBOSE, "action name is %s", g->action_name);
	const char *queue_start = ZQ_SERVER_TEXT("HTTP_X_QUEUE_START");
	if (queue_start) {
		g->block_duration = get_block_time(queue_start, g->rinit_tick / 1000);
	}
	if (g->rum_enabled) {
		srandom((unsigned)cycle_timer());
		if (random() > random_max * g->rum_sample_ratio) {
			g->rum_enabled = 0;
		}
	}
	read_caller(ZQ_SERVER_TEXT("HTTP_X_VANTOR_ID") TSRMLS_CC);
	zq_trace_context_begin(g->traceparent_wanted ? ZQ_SERVER_TEXT("HTTP_TRACEPARENT") : NULL TSRMLS_CC);
	if ((g->transaction_tracer_enabled || g->transaction_parent) && !g->transaction_id) {
		g->transaction_id = get_new_GUID();
	}
	register_transaction_callback(TSRMLS_C);
}

/* Under CGI and FPM a front controller's URI is its own for every page: the configuration may ask for the path instead.
 */
static void take_request_path(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int is_cgi = strcmp(sapi_module.name, "cgi-fcgi") == 0 || strcmp(sapi_module.name, "fpm-fcgi") == 0;
	const char *asked = g->uri_from_request && is_cgi ? ZQ_SERVER_TEXT("REQUEST_URI") : NULL;
	if (asked && *asked) {
		g->request_path = (char *)emalloc(strlen(asked) + 2);
		zq_clean_request_path(asked, g->request_path);
	}
}

/* The decisions, in their order; 0 as soon as one leaves the request unmonitored. */
static int accept_request(const char *uri TSRMLS_DC)
{
	int accepted = g_cli ? accept_command_line(uri TSRMLS_CC) : accept_web(uri TSRMLS_CC);
	if (!accepted || !accept_configuration(TSRMLS_C) || !accept_load(TSRMLS_C)) {
		return 0;
	}
	take_request_path(TSRMLS_C);
	return accept_url(g_cli ? uri : zq_request_uri(TSRMLS_C) TSRMLS_CC);
}

static void activate(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	get_usage(zq_thread_id(), &g->rinit_cpu, NULL);
	zend_is_auto_global("_SERVER", sizeof("_SERVER") - 1 TSRMLS_CC); /* builds it, also when made on first use */
	name_application(TSRMLS_C);
	const char *uri = g_cli ? ZQ_SERVER_TEXT("SCRIPT_FILENAME") : SG(request_info).request_uri;
	ZQ_LOG(ZQ_LOG_VERBOSE, "RINIT processing start, app name=%s, uri=%s", g->app_name,
		SG(request_info).request_uri ? SG(request_info).request_uri : "(null)");
	if (!accept_request(uri TSRMLS_CC)) {
		g->agent_enabled = 0;
		return;
	}
	zq_create_containers(TSRMLS_C);
	zq_details_begin(TSRMLS_C);
	zq_radar_begin(TSRMLS_C);
	if (g_cli) {
		g->action_tracer_enabled = g->transaction_tracer_enabled = g->rum_enabled = 0;
	} else {
		start_web_action(TSRMLS_C);
	}
	g->tracer_threshold_tick = zq_tracer_threshold_us(g->action_tracer_action_threshold);
	zq_quick_wait_for_profile(g->profile_end_time, g->rinit_tick / 1000000);
	ZQ_LOG(ZQ_LOG_VERBOSE, "RINIT processing done");
	if (g->profile_end_time) {
		thread_profile("enter action", g_cli ? "Background" : "Web", NULL TSRMLS_CC);
	}
	zq_board_open(g_cli ? uri : zq_request_uri(TSRMLS_C) TSRMLS_CC);
	g->hook_enabled = 1;
}

int zm_activate_zqprof(INIT_FUNC_ARGS)
{
	(void)type;
	(void)module_number;
	if (!g_module_up) {
		return SUCCESS;
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->hook_enabled = g->in_agent_call = 0;
	zq_board_close(g);
	zq_forget_request(g);
	zq_no_call_is_open(g);
	g->request_open = 1;
	reg_dump(zqprof_ini_log_file);
	if (!g->has_signal_stack) {
		g->has_signal_stack = 1;
		g->signal_stack = zq_open_signal_stack();
	}
	g->rinit_tick = cycle_timer();
	zq_lift_memory_limit(TSRMLS_C);
	zend_try
	{
		activate(TSRMLS_C);
	}
	zend_catch
	{
		g->hook_enabled = 0;
		g->agent_enabled = 0;
	}
	zend_end_try();
	zq_restore_memory_limit(TSRMLS_C);
	return SUCCESS;
}

/* ---- request end ------------------------------------------------------------------------------------------------- */

static void end_action(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->hook_enabled = 0; /* first, so that nothing below is intercepted */
	if (g->profile_end_time) {
		thread_profile("leave action", "ok", NULL TSRMLS_CC);
	}
	g->rdown_tick = cycle_timer();
	ZQ_LOG(ZQ_LOG_VERBOSE, "RSHUTDOWN processing start...");
	zq_http_error(SG(sapi_headers).http_response_code, SG(sapi_headers).http_status_line TSRMLS_CC);
	zq_record_ended_calls(TSRMLS_C);
	zq_radar_end(TSRMLS_C);
	send_metric((int)((g->rdown_tick - g->rinit_tick) / 1000) TSRMLS_CC);
	ZQ_LOG(ZQ_LOG_VERBOSE, "RSHUTDOWN processing done");
}

int zm_deactivate_zqprof(SHUTDOWN_FUNC_ARGS)
{
	(void)type;
	(void)module_number;
	if (!g_module_up) {
		return SUCCESS;
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (g->agent_enabled && g->hook_enabled) {
		zq_lift_memory_limit(TSRMLS_C);
		zend_try
		{
			end_action(TSRMLS_C);
		}
		zend_end_try();
		zq_restore_memory_limit(TSRMLS_C);
	}
	g->hook_enabled = 0;
	zq_board_close(g);
	zq_release_request(TSRMLS_C);
	return SUCCESS;
}
