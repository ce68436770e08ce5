/* The module record: what the engine calls when the extension is loaded, unloaded and described. */
#include "php_zqprof.h"

#include <strings.h>
#include <unistd.h>

#include "zqp_action.h"
#include "zqp_board.h"
#include "zqp_debug.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_lock.h"
#include "zqp_quick.h"
#include "zqp_radar.h"
#include "zqp_rum.h"
#include "zqp_wrapper.h"
#include "zqprof_settings.h"

extern "C" {
#include "zend_extensions.h"
}

/* Puts `ours` in place of a process-wide hook and keeps what was there; a hook that is already ours (the module was
 * started before in this process) keeps its saved predecessor. */
template <typename T>
static void replace_hook(T *hook, T *saved, T ours)
{
	if (*hook != ours) {
		*saved = *hook;
		*hook = ours;
	}
}

/* Since the module's last start. When a later thread begins, the writer in place may be another extension's that leads
 * to ours: taking that for our predecessor would send output round in a circle. */
static int writer_is_hooked;

/* Runs for every thread, under the thread table's own lock: its argument is all that it may touch of ours. */
static void php_zqprof_init_globals(void *globals TSRMLS_DC)
{
	zend_zqprof_globals *g = (zend_zqprof_globals *)globals;
	memset(g, 0, sizeof(*g));
	g->daemon_sock = -1;
	zq_clock_start(&g->clock);
	if (!writer_is_hooked) {
		replace_hook(&sapi_module.ub_write, &_sapi_ub_write, zq_ub_write);
		writer_is_hooked = 1;
	}
}

/* May run in another thread than the one whose globals end here. */
static void php_zqprof_shutdown_globals(void *globals TSRMLS_DC)
{
	zend_zqprof_globals *g = (zend_zqprof_globals *)globals;
	zq_daemon_forget_foreign(g);
	if (g->daemon_sock != -1) {
		ZQ_LOG(ZQ_LOG_DEBUG, "close contact with the daemon on fd=%d", g->daemon_sock);
		close(g->daemon_sock);
		g->daemon_sock = -1;
	}
	zq_board_leave(g);
	zq_close_signal_stack(g->signal_stack);
	zq_radar_free(g);
	free(g->license_copy);
	g->license_copy = NULL;
	g->license = NULL;
}

static void connect_or_launch_daemon(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->hook_enabled = 0;
	zq_daemon_connect(0 TSRMLS_CC);
	if (g->daemon_sock == -1) {
		zq_daemon_start(1 TSRMLS_CC);
	}
}

/* Takes the exit opcode again from a module that started later and calls nobody. That module may as well lead to
 * zq_exit(), so the handler is another one: no two ever call each other in a circle. */
static int take_exit_again(zend_extension *)
{
	user_opcode_handler_t found = zend_get_user_opcode_handler(ZEND_EXIT);
	if (found != zq_exit && found != zq_last_exit) {
		_zend_last_exit_handler = found;
		zend_set_user_opcode_handler(ZEND_EXIT, zq_last_exit);
	}
	return FAILURE; /* the engine takes the extension from its list at once */
}

/* Zend extensions start after all modules, in the order of their loading: one that modules add is the last, when
 * Xdebug, which is one, has set its handlers. */
static void when_all_have_started(int (*start)(zend_extension *))
{
	zend_extension last = {};
	last.name = (char *)ZQ_MODULE_NAME;
	last.startup = start;
	zend_register_extension(&last, NULL);
}

/* MINIT. Never fails: a host without its agent is better than no host. */
static int zm_startup_zqprof(INIT_FUNC_ARGS)
{
	zq_lock_init();
	zq_clock_init();
	writer_is_hooked = 0;
	ts_allocate_id(&zqprof_globals_id, sizeof(zend_zqprof_globals), (ts_allocate_ctor)php_zqprof_init_globals,
		(ts_allocate_dtor)php_zqprof_shutdown_globals);
	zend_register_ini_entries(zqprof_ini_entries, module_number TSRMLS_CC);
	replace_hook(&zend_execute_ex, &_zend_execute_ex, zq_execute_ex);
	replace_hook(&zend_execute_internal, &_zend_execute_internal, zq_execute_internal);
	replace_hook(&zend_error_cb, &_zend_error_cb, zq_error_cb);
	replace_hook(&zend_compile_file, &_zend_compile_file, zq_compile_file);
	if (zend_get_user_opcode_handler(ZEND_EXIT) != zq_exit) {
		_zend_exit_handler = zend_get_user_opcode_handler(ZEND_EXIT);
		zend_set_user_opcode_handler(ZEND_EXIT, zq_exit);
	}
	if (type == MODULE_PERSISTENT) {
		when_all_have_started(take_exit_again);
	}
	if (zq_tracer_threshold_us(0) > 0 && !_zend_execute_internal) { /* a build for tests has every call in its trace */
		zq_quick_init();
	}
	zq_find_running_statement = zq_running_statement_of;
	zq_when_forked = zq_board_forget;
	zq_when_crashed = zq_board_crashed;
	zq_log_init(TSRMLS_C);
	ZQ_LOG(ZQ_LOG_INFO, "MINIT processing start, version (%s)", ZQ_PROTOCOL_VERSION);
	zq_log_share();
	connect_or_launch_daemon(TSRMLS_C);
	g_cli = strcasecmp(sapi_module.name, "cli") == 0;
	zq_app_config_init();
	g_functions = zqprof_functions;
	g_module_up = 1;
	ZQ_LOG(ZQ_LOG_VERBOSE, "MINIT processing done");
	return SUCCESS;
}

/* MSHUTDOWN. The compile hook and the output writer stay in place: other code may have chained to them. They pass
 * everything through from here on. */
static int zm_shutdown_zqprof(SHUTDOWN_FUNC_ARGS)
{
	(void)type;
	g_module_up = 0;
	ZQ_LOG(ZQ_LOG_VERBOSE, "MSHUTDOWN processing start...");
	zend_unregister_ini_entries(module_number TSRMLS_CC);
	zq_app_config_final();
	zend_execute_ex = _zend_execute_ex;
	zend_execute_internal = _zend_execute_internal;
	zend_error_cb = _zend_error_cb;
	zend_set_user_opcode_handler(ZEND_EXIT, _zend_exit_handler);
	ts_free_id(zqprof_globals_id);
	ZQ_LOG(ZQ_LOG_VERBOSE, "MSHUTDOWN processing done\n");
	zq_log_final();
	return SUCCESS;
}

static void print_setting(const char *name, uint name_size TSRMLS_DC)
{
	char *value = zend_ini_string((char *)name, name_size, 0);
	php_info_print_table_row(2, name, value);
}

static void zm_info_zqprof(ZEND_MODULE_INFO_FUNC_ARGS)
{
	(void)zend_module;
	if (!g_module_up) {
		return;
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int enabled = zend_ini_long((char *)"zqs.agent_enabled", sizeof("zqs.agent_enabled"), 0) == 1;
	php_info_print_table_start();
	php_info_print_table_header(2, ZQ_MODULE_NAME, enabled ? "enabled" : "disabled");
	php_info_print_table_row(2, "Version", ZQ_PROTOCOL_VERSION);
	php_info_print_table_row(2, "zqs.license_key", g->license);
	php_info_print_table_row(2, "zqs.app_name", g->app_name);
	print_setting("zqs.prefix", sizeof("zqs.prefix") TSRMLS_CC);
	print_setting("zqs.runtime_root", sizeof("zqs.runtime_root") TSRMLS_CC);
	print_setting("zqs.agent_log_level", sizeof("zqs.agent_log_level") TSRMLS_CC);
	print_setting("zqs.daemon_log_level", sizeof("zqs.daemon_log_level") TSRMLS_CC);
	print_setting("zqs.audit_mode", sizeof("zqs.audit_mode") TSRMLS_CC);
	php_info_print_table_end();
}

static zend_module_entry zqprof_module_entry = {
	STANDARD_MODULE_HEADER,
	ZQ_MODULE_NAME,
	zqprof_functions,
	zm_startup_zqprof,
	zm_shutdown_zqprof,
	zm_activate_zqprof,
	zm_deactivate_zqprof,
	zm_info_zqprof,
	ZQ_PROTOCOL_VERSION,
	STANDARD_MODULE_PROPERTIES,
};

extern "C" ZEND_DLEXPORT zend_module_entry *get_module(void)
{
	return &zqprof_module_entry;
}
