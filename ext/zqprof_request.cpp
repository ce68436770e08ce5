/* Request start and end: whether this request is monitored, what it needs while it is, and what it leaves behind.
 *
 * A request is never failed by the agent: what bails out here leaves it unmonitored. */
#include "php_zqprof.h"

#include <initializer_list>

#include "zqp_component.h"
#include "zqp_debug.h"
#include "zqp_details.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_naming.h"
#include "zqp_naming_uri.h"
#include "zqp_nosql.h"
#include "zqp_open_calls.h"
#include "zqp_process_memory.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"
#include "zqp_wrapper.h"
#include "zqprof_settings.h"

/* The shortest call that enters a trace, however low the action threshold is. */
#ifndef ZQ_TRACER_FLOOR_US
#define ZQ_TRACER_FLOOR_US 1000
#endif

static const double random_max = 2147483647.0; /* what random() gives at most */

/* ---- request start ----------------------------------------------------------------------------------------------- */

uint64 zq_tracer_threshold_us(int action_threshold_ms)
{
	int64_t hundredth_us = (int64_t)action_threshold_ms * 10;
	return (uint64)(hundredth_us < ZQ_TRACER_FLOOR_US ? ZQ_TRACER_FLOOR_US : hundredth_us);
}

/* Text of a $_SERVER entry, borrowed; null when it is absent or no string. */
static const char *server_text(const char *name, uint name_size TSRMLS_DC)
{
	zval *server = PG(http_globals)[TRACK_VARS_SERVER];
	zval *value = server && Z_TYPE_P(server) == IS_ARRAY ? FIND_HASH_ZVALUE(Z_ARRVAL_P(server), name, name_size) : NULL;
	return value && Z_TYPE_P(value) == IS_STRING ? Z_STRVAL_P(value) : NULL;
}
#define SERVER_TEXT(name) server_text(name, sizeof(name) TSRMLS_CC)

static int ini_number(const char *key)
{
	return (int)zend_ini_long((char *)key, (uint)strlen(key) + 1, 0);
}

void zq_set_license(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	const char *key = zq_ini_str("zqs.license_key", NULL);
	if (!key) {
		g->license = "empty key";
		return;
	}
	/* The setting's own text may be freed at request end, while phpinfo of the next request still shows the key. */
	if (!g->license_copy || strcmp(g->license_copy, key) != 0) {
		free(g->license_copy);
		g->license_copy = zq_strdup(key);
	}
	g->license = g->license_copy ? g->license_copy : "empty key";
}

static void name_application(TSRMLS_D)
{
	const char *configured = zend_ini_string((char *)"zqs.app_name", sizeof("zqs.app_name"), 0);
	int automatic = ini_number("zqs.auto_app_naming");
	const char *base = automatic == 0 ? NULL : automatic == 1 ? SERVER_TEXT("SERVER_NAME") : configured;
	const char *port = base ? SERVER_TEXT("SERVER_PORT") : NULL;
	if (port) {
		spprintf(&ZQG(app_name), 0, "%s:%s", base, port);
	} else {
		ZQG(app_name) = estrdup(base ? base : configured ? configured : "");
	}
}

/* The previous request's end freed what these pointed at. */
static void clear_request_fields(zend_zqprof_globals *g)
{
	g->action_name_level = ZQ_NAME_NONE;
	g->urls_captured = g->ignored_params = g->error_collector_ignored_status_codes = NULL;
	g->naming_rules = g->web_action_uri_params_captured = g->rum_script = g->vantor_id_secret = NULL;
	g->action_name = NULL;
	error_element_dtor(g->error); /* of a request whose end another module's bailout skipped */
	g->error = NULL;
	g->sqls = g->tracer = g->components = g->webservices = NULL;
	g->tracer_id = g->prepared_sql = g->thrift_host = g->thrift_tx_data = NULL;
	g->pdo_db = "";
	g->components_hash = g->nosql_memcc = g->nosql_redis = g->nosql_mongo = NULL;
	g->wrapper_function_hash = g->performance_function_hash = NULL;
	g->transaction_id = g->transaction_curl_response_data = g->transaction_req_id = NULL;
	g->own_curl_callbacks = NULL;
	g->details = NULL;
	g->request_path = NULL;
	g->in_agent_call = 0;
	zq_no_call_is_open(g);
	g->recorded_sql_bytes = g->recorded_webservice_bytes = 0;
	g->recorded_limit_logged = g->unlisted_webservice_ms = 0;
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
	smart_str name = {NULL, 0, 0};
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
	g->agent_enabled = ini_number("zqs.agent_enabled");
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

static void make_table(HashTable **table, uint size, dtor_func_t dtor)
{
	if (!*table) {
		*table = (HashTable *)emalloc(sizeof(HashTable));
		zend_hash_init(*table, size, NULL, dtor, 0);
	}
}

static void make_list(zend_llist **list, size_t element_size, void (*dtor)(void *))
{
	if (!*list) {
		*list = (zend_llist *)emalloc(sizeof(zend_llist));
		zend_llist_init(*list, element_size, dtor, 0);
	}
}

void zq_create_containers(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!g->performance_function_hash) {
		make_table(&g->wrapper_function_hash, 32, NULL);
		make_table(&g->performance_function_hash, 16, NULL);
		zq_init_funtion_hash(TSRMLS_C);
	}
	make_list(&g->sqls, sizeof(sql_element), sql_element_dtor);
	make_list(&g->tracer, sizeof(tracer_element), tracer_element_dtor);
	make_list(&g->components, sizeof(component_element), component_element_dtor);
	make_list(&g->webservices, sizeof(webservice_element), webservice_element_dtor);
	make_table(&g->components_hash, 64, component_hash_element_dtor);
	make_table(&g->nosql_memcc, 16, nosql_hash_element_dtor);
	make_table(&g->nosql_redis, 16, nosql_hash_element_dtor);
	make_table(&g->nosql_mongo, 16, nosql_hash_element_dtor);
}

static void reset_counters(zend_zqprof_globals *g)
{
	g->tracer_level = g->child_has_tracer = g->webservice_should_ignored = 0;
	g->use_frame = g->rum_flag = g->block_duration = g->sum_db_metric = 0;
	g->rum_write_length = 0;
	g->rum_header_lines = 0;
	g->rum_page = {};
	g->sum_zq_used = 0;
	g->ws_enabled = g->headers_sent = g->transaction_parent = 0;
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
	const char *queue_start = SERVER_TEXT("HTTP_X_QUEUE_START");
	if (queue_start) {
		g->block_duration = get_block_time(queue_start, g->rinit_tick / 1000);
	}
	if (g->rum_enabled) {
		srandom((unsigned)cycle_timer());
		if (random() > random_max * g->rum_sample_ratio) {
			g->rum_enabled = 0;
		}
	}
	read_caller(SERVER_TEXT("HTTP_X_VANTOR_ID") TSRMLS_CC);
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
	const char *asked = g->uri_from_request && is_cgi ? SERVER_TEXT("REQUEST_URI") : NULL;
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
	g->rinit_cpu = 0;
	get_usage(zq_thread_id(), &g->rinit_cpu, NULL);
	zend_is_auto_global("_SERVER", sizeof("_SERVER") - 1 TSRMLS_CC); /* builds it, also when made on first use */
	name_application(TSRMLS_C);
	const char *uri = g_cli ? SERVER_TEXT("SCRIPT_FILENAME") : SG(request_info).request_uri;
	ZQ_LOG(ZQ_LOG_VERBOSE, "RINIT processing start, app name=%s, uri=%s", g->app_name,
		SG(request_info).request_uri ? SG(request_info).request_uri : "(null)");
	if (!accept_request(uri TSRMLS_CC)) {
		g->agent_enabled = 0;
		return;
	}
	zq_create_containers(TSRMLS_C);
	zq_details_begin(TSRMLS_C);
	reset_counters(g);
	if (g_cli) {
		g->action_tracer_enabled = g->transaction_tracer_enabled = g->rum_enabled = 0;
	} else {
		start_web_action(TSRMLS_C);
	}
	g->tracer_threshold_tick = zq_tracer_threshold_us(g->action_tracer_action_threshold);
	ZQ_LOG(ZQ_LOG_VERBOSE, "RINIT processing done");
	if (g->profile_end_time) {
		thread_profile("enter action", g_cli ? "Background" : "Web", NULL TSRMLS_CC);
	}
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
	g->hook_enabled = 0;
	g->request_open = 1;
	reg_dump(zqprof_ini_log_file);
	g->rinit_tick = cycle_timer();
	g->app_name = NULL;
	clear_request_fields(g);
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
	send_metric((int)((g->rdown_tick - g->rinit_tick) / 1000) TSRMLS_CC);
	ZQ_LOG(ZQ_LOG_VERBOSE, "RSHUTDOWN processing done");
}

static void free_text(char **text)
{
	if (*text) {
		efree(*text);
		*text = NULL;
	}
}

static void free_list(zend_llist **list)
{
	if (*list) {
		zend_llist_destroy(*list);
		efree(*list);
		*list = NULL;
	}
}

static void free_table(HashTable **table)
{
	if (*table) {
		zend_hash_destroy(*table);
		efree(*table);
		*table = NULL;
	}
}

void zq_free_config_copies(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	free_text(&g->urls_captured);
	free_text(&g->ignored_params);
	free_text(&g->naming_rules);
	free_text(&g->web_action_uri_params_captured);
	free_text(&g->error_collector_ignored_status_codes);
	free_text(&g->rum_script);
	free_text(&g->vantor_id_secret);
}

void zq_empty_containers(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	for (zend_llist *list :
		{g->tracer, g->sqls, g->components, g->webservices}) { /* the trace points into the others */
		if (list) {
			zend_llist_clean(list);
		}
	}
	for (HashTable *table :
		{g->components_hash, g->nosql_memcc, g->nosql_redis, g->nosql_mongo, g->own_curl_callbacks}) {
		if (table) {
			zend_hash_clean(table);
		}
	}
	zq_forget_ended_calls(g);
	g->component_generation++;
	g->recorded_sql_bytes = g->recorded_webservice_bytes = 0;
	g->recorded_limit_logged = g->unlisted_webservice_ms = 0;
}

/* Everything that request start and the recorders made; what was never made is skipped. */
static void release_request(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	free_text(&g->action_name);
	g->action_name_level = ZQ_NAME_NONE;
	error_element_dtor(g->error);
	g->error = NULL;
	free_list(&g->sqls);
	free_text(&g->tracer_id);
	free_list(&g->tracer);
	free_list(&g->components);
	free_table(&g->components_hash);
	free_text(&g->prepared_sql);
	free_table(&g->nosql_mongo);
	free_table(&g->nosql_redis);
	free_table(&g->nosql_memcc);
	free_list(&g->webservices);
	free_text(&g->thrift_host);
	free_text(&g->thrift_tx_data);
	free_table(&g->wrapper_function_hash);
	free_table(&g->performance_function_hash);
	free_text(&g->transaction_id);
	free_text(&g->transaction_curl_response_data);
	free_table(&g->own_curl_callbacks);
	free_text(&g->transaction_req_id);
	zq_details_end(TSRMLS_C);
	free_text(&g->request_path);
	zq_free_config_copies(TSRMLS_C);
	free_text(&g->app_name);
	zq_forget_ended_calls(g);
	g->component_generation++;
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
	g->request_open = 0;
	release_request(TSRMLS_C);
	return SUCCESS;
}
