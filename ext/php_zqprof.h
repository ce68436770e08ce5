/* What the module record names: the entry points of the extension. Only the sources of zqprof* include this. */
#ifndef PHP_ZQPROF_H
#define PHP_ZQPROF_H

#include "zqp_state.h"

/* zqprof_request.cpp: request start and end; always SUCCESS, whatever happens inside. */
int zm_activate_zqprof(INIT_FUNC_ARGS);
int zm_deactivate_zqprof(SHUTDOWN_FUNC_ARGS);
/* Creates the per-action lists and tables that are still missing (request memory, owned by the globals). */
void zq_create_containers(TSRMLS_D);
/* Empties every per-action list and table that exists, for the next action of the same request. */
void zq_empty_containers(TSRMLS_D);
/* Frees the request copies of the application's configuration and clears their fields. */
void zq_free_config_copies(TSRMLS_D);
/* Makes `license` point at a thread-owned copy of the account key, or at "empty key" when there is none. */
void zq_set_license(TSRMLS_D);
/* Threshold for the trace in us: one hundredth of the action threshold (ms), at least ZQ_TRACER_FLOOR_US. */
uint64 zq_tracer_threshold_us(int action_threshold_ms);

/* zqprof_execute.cpp: the engine's hooks. Each runs what was hooked before and gives back what that gives; nothing of
 * the call, its result or its errors changes. */
void zq_execute_ex(zend_execute_data *execute_data TSRMLS_DC);
void zq_execute_internal(
	zend_execute_data *execute_data_ptr, struct _zend_fcall_info *fci, int return_value_used TSRMLS_DC);
/* The handler of the ZEND_EXIT opcode. */
int zq_exit(ZEND_OPCODE_HANDLER_ARGS);
zend_op_array *zq_compile_file(zend_file_handle *file_handle, int type TSRMLS_DC);

/* zqprof_functions.cpp: the functions offered to PHP code. */
extern const zend_function_entry zqprof_functions[];

#endif
