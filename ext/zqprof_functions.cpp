/* The functions that PHP code sees: three callbacks that the agent itself registers, and three for applications.
 * Scripts may call any of them at any time; none may do harm in any state. */
#include "php_zqprof.h"

#include "zqp_action.h"
#include "zqp_board.h"
#include "zqp_debug.h"
#include "zqp_details.h"
#include "zqp_radar.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_naming.h"
#include "zqp_open_calls.h"
#include "zqp_quick.h"
#include "zqp_rum.h"
#include "zqp_trace_context.h"
#include "zqp_wrapper_headers.h"

/* Shutdown function: the last chance for the answer to a calling application and for the browser script. */
static PHP_FUNCTION(zqprof_rshutdowncall)
{
	(void)ht, (void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	if (g_module_up && ZQG(transaction_parent)) {
		send_transaction_data(1 TSRMLS_CC);
	}
	if (g_module_up && ZQG(rum_enabled)) {
		injectOutputBuffer(TSRMLS_C);
	}
	RETURN_TRUE;
}

/* Header callback: runs just before the headers leave. */
static PHP_FUNCTION(zqprof_headercall)
{
	(void)ht, (void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	if (g_module_up) {
		send_transaction_data(0 TSRMLS_CC);
	}
	RETURN_TRUE;
}

/* Header callback of curl handles: must answer with the line's length, or the transfer ends. */
static PHP_FUNCTION(zqprof_curl_header)
{
	(void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	zval *handle;
	char *line;
	int line_len;
	if (zend_parse_parameters(ht TSRMLS_CC, "rs", &handle, &line, &line_len) == FAILURE) {
		return;
	}
	if (g_module_up && ZQG(request_open)) {
		curl_header_handler(line, (size_t)line_len TSRMLS_CC);
	}
	RETURN_LONG(line_len);
}

static void set_action_name(const char *name TSRMLS_DC)
{
	char *text;
	spprintf(&text, 0, strchr(name, '/') ? "WebAction/%.*s" : "WebAction/API/%.*s", (int)ZQ_NAME_SIZE, name);
	zq_set_action_name(text, ZQ_NAME_APPLICATION TSRMLS_CC);
}

/* The agent's own calls may run PHP code that calls back into the functions below: lists must stay as they are then. */
static bool may_change_action(TSRMLS_D)
{
	return g_module_up && g_cli && ZQG(request_open) && !ZQG(in_agent_call);
}

/* 1 when the application is monitored: the action is open then. */
static int start_action(const char *name TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->rinit_tick = cycle_timer();
	if (!g->license) {
		zq_set_license(TSRMLS_C);
	}
	update_app_info((long)(g->rinit_tick / 1000000) TSRMLS_CC);
	if (!g->agent_enabled) {
		return 0;
	}
	zq_release_action(TSRMLS_C); /* nothing of the one before may show in this one */
	zq_create_containers(TSRMLS_C);
	zq_details_begin(TSRMLS_C);
	zq_trace_context_begin(NULL TSRMLS_CC);
	zq_radar_begin(TSRMLS_C);
	g->rum_enabled = 0;
	g->tracer_threshold_tick = zq_tracer_threshold_us(g->action_tracer_action_threshold);
	zq_quick_wait_for_profile(g->profile_end_time, g->rinit_tick / 1000000);
	get_usage(zq_thread_id(), &g->rinit_cpu, NULL);
	if (g->transaction_tracer_enabled) {
		g->transaction_id = get_new_GUID();
	}
	set_action_name(name TSRMLS_CC);
	zq_board_open(g->action_name TSRMLS_CC);
	g->hook_enabled = 1;
	return 1;
}

/* vantor_start_webaction(string name [, string other]): a command-line run begins an action of its own. */
static PHP_FUNCTION(vantor_start_webaction)
{
	(void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	char *name = NULL, *other = NULL;
	int name_len, other_len;
	if (zend_parse_parameters(ht TSRMLS_CC, "s|s!", &name, &name_len, &other, &other_len) == FAILURE || !name ||
		!may_change_action(TSRMLS_C)) {
		return;
	}
	zq_lift_memory_limit(TSRMLS_C);
	int started = start_action(name TSRMLS_CC);
	zq_restore_memory_limit(TSRMLS_C);
	if (started) {
		RETURN_TRUE;
	}
}

/* vantor_end_webaction(): reports the open action of a command-line run. */
static PHP_FUNCTION(vantor_end_webaction)
{
	(void)ht, (void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	if (!may_change_action(TSRMLS_C) || !ZQG(hook_enabled)) {
		return;
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->hook_enabled = 0;
	g->rdown_tick = cycle_timer();
	zq_lift_memory_limit(TSRMLS_C); /* a packet can be larger than the room that the script has left */
	zq_record_ended_calls(TSRMLS_C);
	zq_radar_end_action(TSRMLS_C);
	send_metric((int)((g->rdown_tick - g->rinit_tick) / 1000) TSRMLS_CC);
	zq_board_close(g);
	zq_empty_containers(TSRMLS_C);
	zq_free_config_copies(TSRMLS_C);
	zq_restore_memory_limit(TSRMLS_C);
	RETURN_TRUE;
}

static void notice_text(const char *message TSRMLS_DC)
{
	ZQG(error) = error_element_alloc(message, "Exception", zq_code_stack_text(TSRMLS_C));
}

/* An object's "message" as its own class sees it, from the property table, so that no __get runs; borrowed. */
static zval *message_of(zval *object TSRMLS_DC)
{
	HashTable *properties = zq_property_table(object TSRMLS_CC);
	zend_property_info *declared;
	const uint not_its_own = ZEND_ACC_STATIC | ZEND_ACC_SHADOW; /* shadow: private to a parent class */
	if (properties &&
		zend_hash_find(&Z_OBJCE_P(object)->properties_info, ZEND_STRS("message"), (void **)&declared) == SUCCESS &&
		!(declared->flags & not_its_own)) {
		return FIND_HASH_ZVALUE(
			properties, declared->name, (uint)declared->name_length + 1); /* mangled unless public */
	}
	return FIND_HASH_ZVALUE(properties, ZEND_STRS("message"));
}

static void notice_object(zval *object TSRMLS_DC)
{
	zval *message = message_of(object TSRMLS_CC);
	if (!message) {
		return;
	}
	Z_ADDREF_P(message); /* the object's getTrace() may replace it */
	if (Z_TYPE_P(message) == IS_STRING && Z_STRLEN_P(message)) {
		smart_str stack = {};
		zq_get_exception_stack(object, &stack TSRMLS_CC);
		ZQG(error) = error_element_alloc(Z_STRVAL_P(message), Z_OBJCE_P(object)->name, zq_buffer_text(&stack));
	}
	zval_ptr_dtor(&message);
}

/* vantor_notice_error(mixed error [, bool record = true]): the script reports an error; the first of an action wins. */
static PHP_FUNCTION(vantor_notice_error)
{
	(void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	zval *error = NULL;
	zend_bool record = 1;
	if (zend_parse_parameters(ht TSRMLS_CC, "z!|b", &error, &record) == FAILURE || !error || !record || !g_module_up) {
		return;
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!g->request_open || !g->agent_enabled || !g->error_collector_enabled || g->error) {
		return;
	}
	if (Z_TYPE_P(error) == IS_STRING) {
		notice_text(Z_STRVAL_P(error) TSRMLS_CC);
	} else if (Z_TYPE_P(error) == IS_OBJECT) {
		notice_object(error TSRMLS_CC);
	}
	RETURN_TRUE;
}

extern const zend_function_entry zqprof_functions[] = {PHP_FE(zqprof_rshutdowncall, NULL)
		PHP_FE(zqprof_headercall, NULL) PHP_FE(zqprof_curl_header, NULL) PHP_FE(vantor_start_webaction, NULL)
			PHP_FE(vantor_end_webaction, NULL) PHP_FE(vantor_notice_error, NULL) PHP_FE_END};
