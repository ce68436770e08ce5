/* The hook that sees the internal functions that a monitored request calls, and those of the exit opcode. */
#include "zqprof_execute.h"

#include "zqp_board.h"
#include "zqp_quick.h"
#include "zqp_radar.h"

static inline void run_internal(zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	if (_zend_execute_internal) {
		_zend_execute_internal(frame, fci, return_value_used TSRMLS_CC);
	} else {
		execute_internal(frame, fci, return_value_used TSRMLS_CC);
	}
}

/* Where the return value will be; must be asked before the call, since an exception replaces the frame's opline. */
static inline zval **internal_return_slot(zend_execute_data *frame, zend_fcall_info *fci)
{
	if (fci) {
		return fci->retval_ptr_ptr;
	}
	return frame->opline ? &EX_TMP_VAR(frame, frame->opline->result.var)->var.ptr : NULL;
}

/* What is left of a call that no recorder looks at: its hash codes stay 0. */
static zq_stack_data unwatched_call(zend_execute_data *frame, const char *cls, const char *func)
{
	zq_stack_data stack = {};
	stack.execute_data = frame;
	stack.cls = cls;
	stack.func = (char *)func;
	return stack;
}

static zend_never_inline void before_trampoline(zend_execute_data *frame, const char *cls, const char *func TSRMLS_DC)
{
	zq_stack_data stack = unwatched_call(frame, cls, func);
	zq_before_internal_call(&stack TSRMLS_CC);
}

static zend_never_inline void after_trampoline(
	zend_execute_data *frame, zend_class_entry *scope, const char *func, uint64 begin_us TSRMLS_DC)
{
	zq_stack_data stack = unwatched_call(frame, scope ? scope->name : NULL, func);
	callee_stub stub;
	put_stub(&stub, frame, func, scope);
	zq_after_internal_call(&stack, begin_us TSRMLS_CC);
	remove_stub(&stub, frame);
}

/* `__call`, `__callStatic` and `Closure::__invoke` come as temporary functions that are freed inside their own handler:
 * a slow one enters the trace under a stub. */
static zend_never_inline void run_trampoline(
	zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	zend_class_entry *scope = frame->function_state.function->common.scope;
	char *func = estrdup(frame->function_state.function->common.function_name);
	before_trampoline(frame, scope ? scope->name : NULL, func TSRMLS_CC);
	uint64 begin_us = zq_clock_us(&ZQG(clock));
	zq_call_begins(zq_globals(TSRMLS_C), frame, begin_us);
	run_internal(frame, fci, return_value_used TSRMLS_CC);
	zq_call_returned(zq_globals(TSRMLS_C));
	if (ZQG(hook_enabled)) {
		after_trampoline(frame, scope, func, begin_us TSRMLS_CC);
	}
	efree(func);
}

/* A call that a row may want, or a running profile. */
static zend_never_inline void run_watched(
	zend_execute_data *frame, zend_class_entry *scope, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	zq_stack_data stack = {};
	stack.execute_data = frame;
	stack.func = (char *)frame->function_state.function->common.function_name; /* lives as long as its module */
	stack.cls = scope ? scope->name : NULL;
	stack.cls_length = scope ? (int)scope->name_length : 0;
	stack.object = frame->object;
	stack.return_slot = internal_return_slot(frame, fci);
	zq_hash_names(&stack);
	zq_before_internal_call(&stack TSRMLS_CC);
	uint64 begin_us = zq_clock_us(&ZQG(clock));
	if (stack.shown) {
		zq_board_begins(ZQG(board), stack.shown, begin_us);
	}
	unsigned around = ZQG(open_calls); /* a SOAP client may have caught a bailout of calls inside it */
	zq_call_begins(zq_globals(TSRMLS_C), frame, begin_us);
	run_internal(frame, fci, return_value_used TSRMLS_CC);
	ZQG(open_calls) = around;
	if (ZQG(hook_enabled)) {
		zq_after_internal_call(&stack, begin_us TSRMLS_CC);
	}
}

/* Names the callee by the frame, so that the call itself has nothing to keep for it. */
static zend_never_inline void trace_unwatched(zend_execute_data *frame, uint64 begin_us TSRMLS_DC)
{
	const zend_function *function = frame->function_state.function;
	zend_class_entry *scope = function->common.scope;
	zq_stack_data stack = unwatched_call(frame, scope ? scope->name : NULL, function->common.function_name);
	zq_trace_default(&stack, begin_us, zq_clock_us(&ZQG(clock)) TSRMLS_CC);
}

static zend_always_inline void run_unwatched(
	zend_zqprof_globals *g, zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	if (!g->action_tracer_enabled) { /* nobody wants to know how long it took */
		run_internal(frame, fci, return_value_used TSRMLS_CC);
		return;
	}
	uint64 begin_us = zq_clock_us(&g->clock);
	zq_call_begins(g, frame, begin_us);
	run_internal(frame, fci, return_value_used TSRMLS_CC);
	zq_call_returned(g);
	if (g->hook_enabled && UNEXPECTED(took_long(g, begin_us))) {
		trace_unwatched(frame, begin_us TSRMLS_CC);
	}
}

/* The first call at that place in the request. */
static zend_never_inline void show_radar(zend_execute_data *frame, zend_function *function TSRMLS_DC)
{
	zq_radar_called(frame TSRMLS_CC);
	if (!(function->common.fn_flags & ZQ_ACC_NO_ROW) &&
		!zq_internal_may_be_watched(NULL, 0, function->common.function_name)) {
		function->common.fn_flags |= ZQ_ACC_NO_ROW;
	}
}

/* A call of a plain function that the radar wants to see once. What that costs the later ones is won back: whether a
 * row may want the function is known. */
static zend_never_inline void run_on_radar(
	zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zend_function *function = frame->function_state.function;
	if (UNEXPECTED(!zq_radar_has_made(frame TSRMLS_CC))) {
		show_radar(frame, function TSRMLS_CC);
	}
	if (UNEXPECTED(g->profile_end_time) || !(function->common.fn_flags & ZQ_ACC_NO_ROW)) {
		run_watched(frame, NULL, fci, return_value_used TSRMLS_CC);
	} else {
		run_unwatched(g, frame, fci, return_value_used TSRMLS_CC);
	}
}

static zend_never_inline void intercept_internal_call(
	zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zend_function *function = frame->function_state.function;
	zend_class_entry *scope = zq_class_of_call(function, frame->object TSRMLS_CC);
	const char *cls = scope ? scope->name : NULL;
	const char *func = function->common.function_name;
	if (UNEXPECTED(g->profile_end_time) || zq_internal_may_be_watched(cls, scope ? (int)scope->name_length : 0, func)) {
		run_watched(frame, scope, fci, return_value_used TSRMLS_CC);
	} else {
		run_unwatched(g, frame, fci, return_value_used TSRMLS_CC);
	}
}

static void pass_internal(zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	if (!zq_is_watching(zq_globals(TSRMLS_C)) || !frame || !frame->function_state.function->common.function_name) {
		run_internal(frame, fci, return_value_used TSRMLS_CC);
		return;
	}
	const zend_function *function = frame->function_state.function;
	if (EXPECTED(!(function->common.fn_flags & (ZEND_ACC_CALL_VIA_HANDLER | ZQ_ACC_ON_RADAR)))) {
		intercept_internal_call(frame, fci, return_value_used TSRMLS_CC);
	} else if (function->common.fn_flags & ZEND_ACC_CALL_VIA_HANDLER) {
		run_trampoline(frame, fci, return_value_used TSRMLS_CC);
	} else {
		run_on_radar(frame, fci, return_value_used TSRMLS_CC);
	}
}

static zend_never_inline void pass_quick(
	const zq_quick_slot *slot, zend_execute_data *frame, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	if (zq_quick_arguments(slot, frame)) {
		execute_internal(frame, fci, return_value_used TSRMLS_CC);
	} else {
		pass_internal(frame, fci, return_value_used TSRMLS_CC);
	}
}

void zq_execute_internal(zend_execute_data *execute_data_ptr, zend_fcall_info *fci, int return_value_used TSRMLS_DC)
{
	const zq_quick_slot *slot = execute_data_ptr ? zq_quick_slot_of(execute_data_ptr) : NULL;
	if (!slot) {
		pass_internal(execute_data_ptr, fci, return_value_used TSRMLS_CC);
	} else if (!fci && zq_quick_argument(slot, execute_data_ptr)) { /* as execute_internal would */
		zval **result = &EX_TMP_VAR(execute_data_ptr, execute_data_ptr->opline->result.var)->var.ptr;
		slot->handler(1, *result, result, execute_data_ptr->object, return_value_used TSRMLS_CC);
	} else {
		pass_quick(slot, execute_data_ptr, fci, return_value_used TSRMLS_CC);
	}
}

/* ---- exit -------------------------------------------------------------------------------------------------------- */

/* Before the engine runs an `exit`, whose long jump passes all hooks by. Another extension may have the script go on.
 * The calls are noted once: where two handlers of ours lead to each other, the inner one leaves none. */
static int exit_after(user_opcode_handler_t earlier, ZEND_OPCODE_HANDLER_ARGS)
{
	int next = earlier ? earlier(ZEND_OPCODE_HANDLER_ARGS_PASSTHRU) : ZEND_USER_OPCODE_DISPATCH;
	if (next == ZEND_USER_OPCODE_DISPATCH && g_module_up) {
		zq_end_open_calls(0 TSRMLS_CC);
	}
	return next;
}

int zq_exit(ZEND_OPCODE_HANDLER_ARGS)
{
	return exit_after(_zend_exit_handler, ZEND_OPCODE_HANDLER_ARGS_PASSTHRU);
}

int zq_last_exit(ZEND_OPCODE_HANDLER_ARGS)
{
	return exit_after(_zend_last_exit_handler, ZEND_OPCODE_HANDLER_ARGS_PASSTHRU);
}
