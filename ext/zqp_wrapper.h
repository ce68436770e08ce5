/* Recognising the calls that matter: user functions by two per-request tables of full names, internal ones by hash. */
#ifndef ZQP_WRAPPER_H
#define ZQP_WRAPPER_H

#include "zqp_helper.h"

/* One intercepted call; lives on the hook's stack. */
typedef struct zq_stack_data {
	zend_execute_data *execute_data; /* the frame that makes the call: callee, arguments, object */
	const char *cls;                 /* declaring class, else the object's; null for a plain function */
	uint64 cls_hash_code;            /* internal calls only, as func_hash_code */
	int cls_length;
	char *func;
	uint64 func_hash_code;
	int func_length;
	/* private */
	zval **return_slot;              /* where the return value appears; null when unused. The zval is read after the call */
	zend_uint fn_flags;              /* of the callee, read before the call */
	zval *object;                    /* of the call, as before it */
} zq_stack_data;

/* What the bookkeeping of one user call keeps. */
typedef struct zq_user_func_data {
	zend_llist_element *llist_comp_ele; /* open component, or null */
	char *func_full_name;               /* "class::function", or the function alone */
	int func_full_size;                 /* length and NUL, as 5.6 counts hash keys */
	/* private */
	unsigned component_generation;
} zq_user_func_data;

/* Runs before a watched user function; bit 0 of the result asks for a component. */
typedef int (*zq_wrapper_callback)(zend_execute_data *execute_data, char *func TSRMLS_DC);
/* Runs after a call with its times in us; non-zero: recorded, no default trace element. */
typedef int (*zq_performance_callback)(zq_stack_data *stack_data, uint64 begin, uint64 end TSRMLS_DC);

/* Fills wrapper_function_hash with the names that are watched from the start of every request. */
void zq_init_funtion_hash(TSRMLS_D);
/* Add or replace a row; `name_size` counts the NUL. A null table (no action open) is skipped. */
void zq_watch_before(const char *name, size_t name_size, zq_wrapper_callback callback TSRMLS_DC);
void zq_watch_after(const char *name, size_t name_size, zq_performance_callback callback TSRMLS_DC);
/* Callback registered for a name, or null. */
zq_wrapper_callback zq_find_before(const char *name, size_t name_size TSRMLS_DC);
zq_performance_callback zq_find_after(const char *name, size_t name_size TSRMLS_DC);

/* Around every internal call of a monitored request. `begin` is the clock before the call (us). */
void zq_before_internal_call(zq_stack_data *stack_data TSRMLS_DC);
void zq_after_internal_call(zq_stack_data *stack_data, uint64 begin TSRMLS_DC);
/* Appends the default trace element of a call slower than the threshold. */
void zq_trace_default(zq_stack_data *stack_data, uint64 begin, uint64 end TSRMLS_DC);
/* The three identification fields are set and non-empty: outgoing calls carry the caller's identity. */
int zq_identity_is_set(TSRMLS_D);

/* Small callbacks. */
int wrapper_add_components(zend_execute_data *execute_data, char *func TSRMLS_DC);
int wrapper_should_ignore_external(zend_execute_data *execute_data, char *func TSRMLS_DC);

#endif
