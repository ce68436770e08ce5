/* The facts of the process that modules of every layer ask for. */
#include "zqp_state.h"

ts_rsrc_id zqprof_globals_id;
int g_cli;
int g_module_up;

void (*_zend_execute_ex)(zend_execute_data *execute_data TSRMLS_DC);
user_opcode_handler_t _zend_exit_handler, _zend_last_exit_handler;
void (*_zend_execute_internal)(
	zend_execute_data *execute_data_ptr, struct _zend_fcall_info *fci, int return_value_used TSRMLS_DC);
zend_op_array *(*_zend_compile_file)(zend_file_handle *file_handle, int type TSRMLS_DC);
void (*_zend_error_cb)(int type, const char *error_filename, const uint error_lineno, const char *format, va_list args);
int (*_sapi_ub_write)(const char *str, unsigned int str_length TSRMLS_DC);
const zend_function_entry *g_functions;
