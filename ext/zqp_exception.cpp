/* The action's error. Four sources: the engine's error callback, the script's own error handler, the HTTP status and
 * failed queries. The first three keep the first error; a failed query takes the place of what was there. */
#include "zqp_exception.h"

#include "zqp_lock.h"
#include "zqp_open_calls.h"
#include "zqp_radar.h"

/* A record with room for a message of `msg_size` bytes, which is empty yet. The time limit must not strike while the C
 * library's heap is held. */
static error_element *new_element(size_t msg_size, const char *cls, const char *stack)
{
	size_t cls_size = strlen(cls) + 1, stack_size = stack ? zq_stack_size(stack) : 0;
	sigset_t timers;
	zq_hold_timers(&timers);
	error_element *element = (error_element *)malloc(sizeof(*element) + msg_size + cls_size + stack_size);
	zq_allow_timers(&timers);
	if (element) {
		element->msg = (char *)(element + 1);
		element->msg[0] = '\0';
		element->cls = (char *)memcpy(element->msg + msg_size, cls, cls_size);
		element->stack = stack ? (char *)memcpy(element->cls + cls_size, stack, stack_size) : NULL;
	}
	return element;
}

error_element *error_element_alloc(const char *msg, const char *cls, char *stack)
{
	size_t msg_size = strlen(msg ? msg : "") + 1;
	error_element *element = new_element(msg_size, cls ? cls : "", stack);
	if (element && msg) {
		memcpy(element->msg, msg, msg_size);
	}
	if (stack) {
		efree(stack);
	}
	return element;
}

void error_element_dtor(void *ele)
{
	sigset_t timers;
	if (ele) {
		zq_hold_timers(&timers);
		free(ele);
		zq_allow_timers(&timers);
	}
}

const char *zq_get_err_type_name(int type)
{
	switch (type) {
	case E_ERROR: return "RUNTIME_ERROR";
	case E_PARSE: return "PARSE_ERROR";
	case E_CORE_ERROR: return "CORE_ERROR";
	case E_COMPILE_ERROR: return "COMPILE_ERROR";
	case E_USER_ERROR: return "USER_ERROR";
	case E_RECOVERABLE_ERROR: return "RECOVERABLE_ERROR";
	default: return "UNKOWN_ERROR"; /* the daemon knows this spelling */
	}
}

int zq_error_need_report(int type)
{
	switch (type) {
	case E_ERROR:
	case E_PARSE:
	case E_CORE_ERROR:
	case E_COMPILE_ERROR:
	case E_USER_ERROR:
	case E_RECOVERABLE_ERROR: return 1;
	default: return 0;
	}
}

/* Class of an exception that nobody caught, copied out of the engine's message; null for any other message, and for an
 * exception without a message of its own, whose class is followed by other words. */
static char *uncaught_class(const char *msg)
{
	static const char before[] = "Uncaught exception '";
	const char *start = strstr(msg, before);
	if (!start) {
		return NULL;
	}
	start += sizeof(before) - 1;
	static const char after[] = "' with message";
	const char *end = strchr(start, '\''); /* no class name has a quote: the next one ends it */
	if (!end || strncmp(end, after, sizeof(after) - 1) != 0) {
		return NULL;
	}
	return estrndup(start, (uint)(end - start));
}

/* No PHP code may run in here: the engine is in the middle of an error. */
static void record_engine_error(int type, const char *format, va_list args TSRMLS_DC)
{
	va_list copy; /* the previous callback needs `args` untouched */
	char *msg = NULL;
	va_copy(copy, args);
	vspprintf(&msg, 0, format, copy);
	va_end(copy);

	char *exception_class = type == E_ERROR ? uncaught_class(msg) : NULL;
	const char *cls = exception_class ? exception_class : zq_get_err_type_name(type);
	ZQG(error) = error_element_alloc(msg, cls, zq_code_stack_text(TSRMLS_C));
	if (exception_class) {
		efree(exception_class);
	}
	efree(msg);
}

static bool engine_error_is_wanted(int type TSRMLS_DC)
{
	return g_module_up && zq_is_watching(zq_globals(TSRMLS_C)) && ZQG(error_collector_enabled) && !ZQG(error) &&
		zq_error_need_report(type);
}

/* The engine ends the process when it cannot set up a heap. */
static int memory_is_left(void)
{
	void *volatile probe = malloc(1 << 20); /* volatile: compilers drop a block that nobody uses */
	free(probe);
	return probe != NULL;
}

/* What can be recorded when the machine's memory is gone: the message, as far as it fits, and the type, but no stack.
 */
static void record_briefly(int type, const char *format, va_list args TSRMLS_DC)
{
	char msg[512];
	va_list copy;
	va_copy(copy, args);
	ap_php_vsnprintf(msg, sizeof(msg), format, copy);
	va_end(copy);
	ZQG(error) = error_element_alloc(msg, zq_get_err_type_name(type), NULL);
}

/* Records on a heap that exists for this alone. Behind "Allowed memory size exhausted" the script's own has next to
 * nothing left, and the engine discards a buffered page whose request has grown beyond the limit since. The time limit
 * must not strike meanwhile: what the engine does then belongs on the script's heap. 1 when the recording bailed out.
 */
static int record_aside(int type, const char *format, va_list args TSRMLS_DC)
{
	volatile int bailed_out = 0;
	sigset_t timers;
	if (!memory_is_left()) {
		record_briefly(type, format, args TSRMLS_CC);
		return 0;
	}
	zq_hold_timers(&timers);
	zend_mm_heap *own = is_zend_mm(TSRMLS_C) ? zend_mm_startup() : NULL;
	zend_mm_heap *of_script = own ? zend_mm_set_heap(own TSRMLS_CC) : NULL;
	zend_try
	{
		record_engine_error(type, format, args TSRMLS_CC);
	}
	zend_catch
	{
		bailed_out = 1;
	}
	zend_end_try();
	if (own) {
		zend_mm_set_heap(of_script TSRMLS_CC);
		zend_mm_shutdown(own, 1, 1 TSRMLS_CC);
	}
	zq_allow_timers(&timers);
	return bailed_out;
}

/* The types at which php_error_cb ends the request by itself; one of them becomes an exception where the engine says
 * so. */
static bool engine_ends_request(int type TSRMLS_DC)
{
	return zq_error_need_report(type) && type != E_PARSE &&
		(type != E_RECOVERABLE_ERROR || EG(error_handling) == EH_NORMAL);
}

/* A file that cannot be parsed ends the request as well, while evaluated code goes on with false. */
static bool compiler_ends_request(int type TSRMLS_DC)
{
	return type == E_PARSE && ZQG(compiling_in) && ZQG(compiling_in) == EG(current_execute_data);
}

static bool agent_may_not_hide(int type)
{
	return type == E_ERROR || type == E_PARSE || type == E_CORE_ERROR || type == E_COMPILE_ERROR;
}

void zq_error_cb(int type, const char *error_filename, const uint error_lineno, const char *format, va_list args)
{
	TSRMLS_FETCH();
	if (g_module_up && ZQG(in_agent_call) > 0 && !agent_may_not_hide(type)) {
		return;
	}
	if (g_module_up && (engine_ends_request(type TSRMLS_CC) || compiler_ends_request(type TSRMLS_CC))) {
		zq_end_open_calls(1 TSRMLS_CC);
	}
	if (g_module_up) {
		zq_radar_error(type, error_filename, error_lineno, format, args TSRMLS_CC);
	}
	int bailed_out = 0;
	if (engine_error_is_wanted(type TSRMLS_CC)) {
		bailed_out = record_aside(type, format, args TSRMLS_CC);
	}
	_zend_error_cb(type, error_filename, error_lineno, format, args);
	if (bailed_out && !engine_ends_request(type TSRMLS_CC)) {
		zend_bailout(); /* the current frame is gone: nothing can go on from here */
	}
}

int wrapper_user_error_handler(zend_execute_data *execute_data, char *func TSRMLS_DC)
{
	(void)func;
	if (!ZQG(hook_enabled) || !ZQG(error_collector_enabled) || ZQG(error)) {
		return 0;
	}
	int type = (int)get_argument_long(execute_data, 0);
	const char *msg = get_argument_char(execute_data, 1);
	if (zq_error_need_report(type) && msg) {
		ZQG(error) = error_element_alloc(msg, zq_get_err_type_name(type), zq_code_stack_text(TSRMLS_C));
	}
	return 0;
}

void zq_http_error(int status_code, const char *msg TSRMLS_DC)
{
	if (!ZQG(error_collector_enabled) || ZQG(error)) {
		return;
	}
	/* 401 is part of ordinary authentication */
	if (status_code != 400 && status_code < 402) {
		return;
	}
	char status[12];
	snprintf(status, sizeof(status), "%d", status_code);
	status[3] = '\0'; /* a script may send any number; a status has three digits */
	const char *ignored = ZQG(error_collector_ignored_status_codes);
	if (ignored && *ignored && strstr(ignored, status)) {
		return;
	}
	ZQG(error) = error_element_alloc(msg ? msg : status, "HTTP_ERROR", zq_code_stack_text(TSRMLS_C));
}

void zq_db_error(const char *msg, const char *sql TSRMLS_DC)
{
	char *stack = zq_code_stack_text(TSRMLS_C);
	msg = msg ? msg : "";
	size_t msg_len = strlen(msg), size = msg_len + (sql ? strlen(sql) : 0) + sizeof(". sql=[]");
	error_element *element = new_element(size, "DB_ERROR", stack);
	efree(stack);
	if (!element) {
		return;
	}
	snprintf(element->msg, size, "%s%s%s%s", msg, sql ? ". sql=[" : "", sql ? sql : "", sql ? "]" : "");
	zq_obfuscate_sql(element->msg + msg_len); /* no values leave the process */
	error_element_dtor(ZQG(error));
	ZQG(error) = element;
}
