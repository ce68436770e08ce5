/* What the module record names: the entry points of the extension. Only the sources of zqprof* include this. */
#ifndef PHP_ZQPROF_H
#define PHP_ZQPROF_H

#include "zqp_state.h"

/* zqprof_request.cpp: request start and end; always SUCCESS, whatever happens inside. */
int zm_activate_zqprof(INIT_FUNC_ARGS);
int zm_deactivate_zqprof(SHUTDOWN_FUNC_ARGS);

/* zqprof_execute.cpp: the engine's hooks. Each runs what was hooked before and gives back what that gives; nothing of
 * the call, its result or its errors changes. */
void zq_execute_ex(zend_execute_data *execute_data TSRMLS_DC);
void zq_execute_internal(
	zend_execute_data *execute_data_ptr, struct _zend_fcall_info *fci, int return_value_used TSRMLS_DC);
/* Handlers of the ZEND_EXIT opcode: the one that modules which start later find, and the one that comes after theirs.
 */
int zq_exit(ZEND_OPCODE_HANDLER_ARGS);
int zq_last_exit(ZEND_OPCODE_HANDLER_ARGS);
zend_op_array *zq_compile_file(zend_file_handle *file_handle, int type TSRMLS_DC);

/* zqprof_functions.cpp: the functions offered to PHP code. */
extern const zend_function_entry zqprof_functions[];

#endif
