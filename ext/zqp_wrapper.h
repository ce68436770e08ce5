/* Recognising the calls that matter: user functions by two per-request tables of full names, internal ones by hash. */
#ifndef ZQP_WRAPPER_H
#define ZQP_WRAPPER_H

#include "zqp_board_layout.h"
#include "zqp_helper.h"
#include "zqp_open_calls.h"

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
	zval **return_slot; /* where the return value appears; null when unused. The zval is read after the call */
	zval *object;       /* of the call, as before it */
	php_stream_context *lent_context; /* holds our header while the call runs; null: none does */
	bool lent_options;                /* that context had no options for HTTP before */
	const void *after;     /* the dispatch's row for an internal call, when it has been looked up before the call */
	zq_board_call *shown;  /* on the board; null: is not */
	uint32_t shown_within; /* number of the call that was shown before, and is again afterwards */
	const HashTable *earlier_headers; /* $http_response_header as it was before the call, or null */
} zq_stack_data;

/* The value that the call returned, borrowed; null when there is none. */
static inline zval *zq_returned_value(zq_stack_data *call)
{
	return call->return_slot ? *call->return_slot : NULL;
}

/* What the bookkeeping of one user call keeps. */
typedef struct zq_user_func_data {
	zend_llist_element *llist_comp_ele; /* open component, or null */
	char *func_full_name;               /* "class::function", or the function alone */
	int func_full_size;                 /* length and NUL, as 5.6 counts hash keys */
	/* private */
	unsigned component_generation;
	bool is_function; /* false: include, require or eval */
} zq_user_func_data;

/* Runs before a watched user function; bit 0 of the result asks for a component. */
typedef int (*zq_wrapper_callback)(zend_execute_data *execute_data, char *func TSRMLS_DC);
/* Runs after a call with its times in us; non-zero: recorded, no default trace element. */
typedef int (*zq_performance_callback)(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* Fills wrapper_function_hash with the names that are watched from the start of every request. Once per pair of
 * tables, right after both were created. */
void zq_init_funtion_hash(TSRMLS_D);
/* Add or replace a row; `name_size` counts the NUL. A null table (no action open) is skipped. */
void zq_watch_before(const char *name, size_t name_size, zq_wrapper_callback callback TSRMLS_DC);
void zq_watch_after(const char *name, size_t name_size, zq_performance_callback callback TSRMLS_DC);
/* The same for the callable that is an argument of a call, given by name or as an array: watched under the name that
 * its declaration gives it, an inherited method under its parent's. Closures have none and are skipped. */
void zq_watch_callback(zend_execute_data *data, int arg_seq, zq_wrapper_callback callback TSRMLS_DC);
/* Callback registered for a name, or null. */
zq_wrapper_callback zq_find_before(const char *name, size_t name_size TSRMLS_DC);
zq_performance_callback zq_find_after(const char *name, size_t name_size TSRMLS_DC);

/* What a caller knows of a name before it has built it, as a number: of a method the length and first byte of its class
 * and its own first two bytes, of a plain function (`cls` null) its first four. */
static inline uint64 zq_watch_key(const char *cls, int cls_len, const char *func)
{
	const unsigned char *name = (const unsigned char *)func;
	uint64 key = name[0];
	if (!key) {
		return 0;
	}
	key |= (uint64)name[1] << 8;
	if (cls) {
		return key | (uint64)(unsigned char)cls[0] << 16 | (uint64)(unsigned)cls_len << 24 | (uint64)1 << 56;
	}
	if (name[1] && name[2]) {
		key |= (uint64)name[2] << 16 | (uint64)name[3] << 24;
	}
	return key;
}
/* Its place in watch_filter, a bitmap of 1,024 bits. */
static inline unsigned zq_watch_bit(uint64 key)
{
	return (unsigned)(key * 0x9E3779B97F4A7C15u >> 54);
}
/* 0: no row in either table has the full name "cls::func" ("func" when `cls` is null), and nobody needs to build it. 1:
 * one may have. A row that the call itself adds changes the answer, so ask again for the after-step. */
static inline bool zq_may_be_watched(const zend_zqprof_globals *g, const char *cls, int cls_len, const char *func)
{
	unsigned bit = zq_watch_bit(zq_watch_key(cls, cls_len, func));
	return (int)(g->watch_filter[bit >> 6] >> (bit & 63) & 1);
}

/* Around every internal call of a monitored request. `begin_us` is the clock before the call. A call whose hash codes
 * are 0 is dispatched to no row; profile line and default trace element need none. */
void zq_before_internal_call(zq_stack_data *call TSRMLS_DC);
void zq_after_internal_call(zq_stack_data *call, uint64 begin_us TSRMLS_DC);
/* Lengths and hashes of the names of an internal call, by which its rows are found. */
static inline void zq_hash_names(zq_stack_data *stack)
{
	stack->func_length = (int)strlen(stack->func);
	stack->func_hash_code = zq_name_hash(stack->func, (size_t)stack->func_length);
	if (stack->cls) {
		stack->cls_hash_code = zq_name_hash(stack->cls, (size_t)stack->cls_length);
	}
}
/* For zq_find_running_statement. */
bool zq_running_statement_of(zend_execute_data *frame, zq_running_statement *found TSRMLS_DC);
/* 0: no row handles an internal call of this function (`cls` null: a plain function; the name is read up to its second
 * byte), so that its hash codes may stay 0. 1: a row may. */
int zq_internal_may_be_watched(const char *cls, int cls_len, const char *func);
/* Appends the default trace element of a call slower than the threshold. */
void zq_trace_default(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* The three identification fields are set and non-empty: outgoing calls carry the caller's identity. */
int zq_identity_is_set(TSRMLS_D);

/* Small callbacks of user functions. */
int wrapper_add_components(zend_execute_data *execute_data, char *func TSRMLS_DC); /* 1: asks for a component */
int wrapper_should_ignore_external(
	zend_execute_data *execute_data, char *func TSRMLS_DC); /* silences the calls inside */

/* Small handlers of internal functions. */
void wrapper_header(zq_stack_data *call TSRMLS_DC);            /* HTTP errors; pages that must not get the script */
void wrapper_set_error_handler(zq_stack_data *call TSRMLS_DC); /* watches the script's own handler */
void wrapper_ob_flush(zq_stack_data *call TSRMLS_DC);          /* the page script, before the buffer leaves */

#endif
