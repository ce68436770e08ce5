/* The one error that an action reports: the first serious engine error, error seen by the script's own handler, HTTP
 * error status, database error, or error given by the script. */
#ifndef ZQP_EXCEPTION_H
#define ZQP_EXCEPTION_H

#include "zqp_helper.h"

/* One block with its texts, from malloc: some are made after "Allowed memory size exhausted", and a failed statement
 * may be as long as all that the script has left. */
typedef struct error_element {
	char *msg;
	char *cls;   /* error type name, exception class, "HTTP_ERROR" or "DB_ERROR" */
	char *stack; /* a stack text (zqp_helper.h), may be null */
} error_element;

/* New record with copies of the texts; `stack`, request memory, is taken over and released. Null when the machine has
 * no memory left. */
error_element *error_element_alloc(const char *msg, const char *cls, char *stack);
void error_element_dtor(void *ele); /* frees the record with its texts; null is fine */
/* Name of an engine error type; "UNKOWN_ERROR" for one that is not reported. Static text. */
const char *zq_get_err_type_name(int type);
/* 1 for the six types that are reported. */
int zq_error_need_report(int type);

/* The engine's error callback: records, then calls the previous one with the same arguments. Errors that the agent's
 * own calls raise are dropped, except fatal ones. */
void zq_error_cb(int type, const char *error_filename, const uint error_lineno, const char *format, va_list args);
/* Before-hook of the script's own error handler; 0. */
int wrapper_user_error_handler(zend_execute_data *execute_data, char *func TSRMLS_DC);
/* Records an HTTP status of 400 or from 402 on, unless ignored; `msg` may be null (then the status itself). */
void zq_http_error(int status_code, const char *msg TSRMLS_DC);
/* Records a database error whatever was recorded before; the statement part is obfuscated. `sql` may be null. */
void zq_db_error(const char *msg, const char *sql TSRMLS_DC);

#endif
