/* The calls that are running, by the frame that makes each and the time at which it began, and what is kept of those
 * that `exit`, a fatal error or a limit ends: the engine then leaves by a long jump past every hook, and no after-step
 * of theirs runs.
 *
 * The rows lie in the thread's globals and not in the frames of the hooks: a jump that nobody announced (a client that
 * went away) leaves rows behind, which are then recognised by their frame, that no longer runs, and are never followed.
 */
#ifndef ZQP_OPEN_CALLS_H
#define ZQP_OPEN_CALLS_H

#include "zqp_helper.h"

/* What a frame is calling. */
typedef struct zq_callee {
	zend_class_entry *scope; /* declaring class, else the object's; null for a plain function */
	const char *func;        /* function name, or the kind word of included code; null: nothing that has a name */
} zq_callee;

/* The frame's callee; its name lives as long as the callee. */
zq_callee zq_callee_of(zend_execute_data *frame TSRMLS_DC);
/* "include" and the like by the frame's include-or-eval operation, static; null for any other operation. */
const char *zq_kind_word(const zend_execute_data *frame);
/* The function's class, else that of the object. */
static inline zend_class_entry *zq_class_of_call(const zend_function *function, zval *object TSRMLS_DC)
{
	if (function->common.scope) {
		return function->common.scope;
	}
	return object && Z_TYPE_P(object) == IS_OBJECT && Z_OBJ_HT_P(object)->get_class_entry ? Z_OBJCE_P(object) : NULL;
}

/* What a database call that is running runs. Borrowed; `source` and vendor_of() as for zq_details_place(). */
typedef struct zq_running_statement {
	const char *text, *vendor;
	const void *source;
	const char *(*vendor_of)(const void *);
} zq_running_statement;
/* The recorders', set at module start-up: false for any other call, and for one that makes its statement. Runs no PHP
 * code and takes no memory. */
extern bool (*zq_find_running_statement)(zend_execute_data *frame, zq_running_statement *found TSRMLS_DC);

/* Around every call that is timed. Calls nested deeper than there are rows have none. */
static inline void zq_call_begins(zend_zqprof_globals *g, zend_execute_data *frame, uint64 begin_us)
{
	unsigned row = g->open_calls++;
	if (EXPECTED(row < ZQ_OPEN_CALLS)) {
		g->open_frames[row] = frame;
		g->open_starts[row] = begin_us;
	}
}
static inline void zq_call_returned(zend_zqprof_globals *g)
{
	g->open_calls--;
}

/* Nothing runs: forgets the rows, and lowers the switches that a call raises while it runs. */
void zq_no_call_is_open(zend_zqprof_globals *g);
/* Takes note that all calls end now; while their frames are whole. `is_error`: those that are outside a call of a SOAP
 * client go on, since that turns fatal errors into exceptions. Runs no PHP code and takes nothing of the request's
 * memory; does nothing when no action is open. */
void zq_end_open_calls(int is_error TSRMLS_DC);
/* Moves what was noted into the trace and the components of the action. */
void zq_record_ended_calls(TSRMLS_D);
/* Frees it. */
void zq_forget_ended_calls(zend_zqprof_globals *g);

#endif
