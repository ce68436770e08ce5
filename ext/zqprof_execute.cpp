/* The hooks that see what a monitored request runs and compiles of its own code.
 *
 * PHP recursion is C recursion here, so the frames of the hooks stay small: what is needed only before or after the
 * call is done in functions of its own, which are not inlined. A call that nothing watches costs the tests below and
 * two readings of the clock. */
#include "zqprof_execute.h"

#include "zqp_board.h"
#include "zqp_component.h"
#include "zqp_io.h"
#include "zqp_open_calls.h"
#include "zqp_radar.h"
#include "zqp_tracer.h"
#include "zqp_wrapper.h"

/* ---- user code --------------------------------------------------------------------------------------------------- */

/* What one intercepted user call keeps while it runs. */
struct user_call {
	zend_class_entry *scope; /* declaring class, else the object's; null for a plain function */
	const char *func;        /* function name, or the kind word of included code */
	zval **return_slot;
	zend_llist_element *component; /* opened for it, or null; set when is_awaited */
	unsigned component_generation;
	int level_before;
	bool is_closure; /* may be freed before its caller goes on, and its name with it */
	bool is_awaited; /* there is something to do afterwards, however quick it is */
};

/* What most closures are called, in memory that outlives the call. */
static const char CLOSURE_NAME[] = "{closure}";

/* The name of a closure that outlives it: closures of a namespace bear that too, those made of functions and methods
 * the name of these. */
static zend_never_inline const char *keep_closure_name(const char *name)
{
	return strcmp(name, CLOSURE_NAME) == 0 ? CLOSURE_NAME : estrdup(name);
}

static inline void drop_closure_name(const user_call *call)
{
	if (call->is_closure && call->func != CLOSURE_NAME) {
		efree((char *)call->func);
	}
}

/* false: included or evaluated code. */
static inline bool is_function_call(const zend_execute_data *caller)
{
	return caller->function_state.function->common.function_name != NULL;
}

/* Nesting of user functions. A call that the engine makes on its own (shutdown function, output handler) starts again:
 * an exit may have left the frames, and the level, of the main script as they were. */
static inline int enter_level(zend_zqprof_globals *g, zend_execute_data *caller)
{
	if (UNEXPECTED(!caller->op_array) && !caller->prev_execute_data) {
		zq_no_call_is_open(g);
	}
	int before = g->tracer_level;
	g->tracer_level = before + 1;
	return before;
}

/* Fills `call`, and enters its level; false when the frame is nothing to intercept. */
static inline bool identify_user_call(user_call *call, zend_zqprof_globals *g, zend_execute_data *caller TSRMLS_DC)
{
	zend_function *function = caller->function_state.function;
	call->func = function->common.function_name;
	if (UNEXPECTED(!call->func)) {
		call->scope = NULL;
		call->level_before = g->tracer_level;
		return (call->func = zq_kind_word(caller)) != NULL;
	}
	call->scope = zq_class_of_call(function, caller->object TSRMLS_CC);
	call->level_before = enter_level(g, caller);
	if (UNEXPECTED(function->common.fn_flags & ZEND_ACC_CLOSURE)) {
		call->is_closure = true;
		call->func = keep_closure_name(call->func);
	}
	return true;
}

/* "class::function", or the function alone, for a call that a row or the profile may want; freed by free_full_name. */
static void build_full_name(zq_user_func_data *user_data, const zq_stack_data *stack)
{
	size_t func_size = (size_t)stack->func_length + 1, prefix = 0;
	user_data->func_full_name = stack->func;
	if (stack->cls) {
		prefix = (size_t)stack->cls_length + 2;
		user_data->func_full_name = (char *)emalloc(prefix + func_size);
		memcpy(user_data->func_full_name, stack->cls, (size_t)stack->cls_length);
		memcpy(user_data->func_full_name + stack->cls_length, "::", 2);
		memcpy(user_data->func_full_name + prefix, stack->func, func_size);
	}
	user_data->func_full_size = (int)(prefix + func_size);
}

static void free_full_name(zq_user_func_data *user_data, const zq_stack_data *stack)
{
	if (user_data->func_full_name && user_data->func_full_name != stack->func) {
		efree(user_data->func_full_name);
	}
}

static void zq_before_function_call(zq_stack_data *stack, zq_user_func_data *user_data TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int wanted = 0;
	if (g->profile_end_time) {
		thread_profile("enter function", user_data->func_full_name, NULL TSRMLS_CC);
	}
	zq_wrapper_callback callback = user_data->func_full_name
		? zq_find_before(user_data->func_full_name, (size_t)user_data->func_full_size TSRMLS_CC)
		: NULL;
	if (callback) {
		wanted = callback(stack->execute_data, user_data->func_full_name TSRMLS_CC) & 1;
	}
	if (g->board && g->tracer_level == 1 && user_data->is_function) {
		zq_board_outermost(g, stack->execute_data, stack->cls, (size_t)stack->cls_length, stack->func,
			(size_t)stack->func_length TSRMLS_CC);
	}
	/* Every outermost user function is a component; included code never is by its level. */
	if (wanted || (g->tracer_level == 1 && user_data->is_function)) {
		user_data->llist_comp_ele = zq_component_open(TSRMLS_C);
		user_data->component_generation = g->component_generation;
	}
}

static void zq_after_function_call(zq_stack_data *stack, zq_user_func_data *user_data, uint64 begin_us TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (g->profile_end_time) {
		thread_profile("leave function", user_data->func_full_name, NULL TSRMLS_CC);
	}
	uint64 end_us = zq_clock_us(&g->clock);
	zq_performance_callback callback = user_data->func_full_name
		? zq_find_after(user_data->func_full_name, (size_t)user_data->func_full_size TSRMLS_CC)
		: NULL;
	if (!callback || !callback(stack, begin_us, end_us TSRMLS_CC)) {
		zq_trace_default(stack, begin_us, end_us TSRMLS_CC);
	}
	if (user_data->llist_comp_ele) {
		if (g->board && g->tracer_level == 1) {
			zq_board_outermost(g, stack->execute_data, NULL, 0, NULL, 0 TSRMLS_CC);
		}
		zq_component_close(user_data->llist_comp_ele, user_data->component_generation, stack->cls, stack->func,
			(int)((end_us - begin_us) / 1000) TSRMLS_CC);
	}
}

static void describe_call(zq_stack_data *stack, const user_call *call, zend_execute_data *caller)
{
	memset(stack, 0, sizeof(*stack));
	stack->execute_data = caller;
	stack->cls = call->scope ? call->scope->name : NULL;
	stack->cls_length = call->scope ? (int)call->scope->name_length : 0;
	stack->func = (char *)call->func;
	stack->func_length = (int)strlen(call->func);
	stack->return_slot = call->return_slot;
	stack->object = caller->object;
}

static inline int is_watched(const zend_zqprof_globals *g, const user_call *call)
{
	return call->scope ? zq_may_be_watched(g, call->scope->name, (int)call->scope->name_length, call->func)
					   : zq_may_be_watched(g, NULL, 0, call->func);
}

/* Asked after the call: by then it may itself have added the row that wants it. */
static inline int is_watched_after(const zend_zqprof_globals *g, const user_call *call)
{
	return g->performance_function_hash->nNumOfElements && is_watched(g, call);
}

static zend_never_inline void before_user_call(user_call *call, zend_execute_data *caller TSRMLS_DC)
{
	zq_stack_data stack;
	zq_user_func_data user_data = {};
	describe_call(&stack, call, caller);
	if (ZQG(profile_end_time) || is_watched(zq_globals(TSRMLS_C), call)) {
		build_full_name(&user_data, &stack);
	}
	user_data.is_function = is_function_call(caller);
	zq_before_function_call(&stack, &user_data TSRMLS_CC);
	call->component = user_data.llist_comp_ele;
	call->component_generation = user_data.component_generation;
	if (call->component) {
		((component_element *)call->component->data)->frame = caller;
	}
	free_full_name(&user_data, &stack);
	call->is_awaited = call->component || ZQG(profile_end_time);
}

/* The engine still holds the callee's symbol table and op array here, and destroys the active symbol table next. What
 * raises an error or releases objects in between must see the caller's. */
static zend_never_inline void after_user_call(user_call *call, zend_execute_data *caller, uint64 begin_us TSRMLS_DC)
{
	zend_op **opline_ptr = EG(opline_ptr);
	zend_op_array *active_op_array = EG(active_op_array);
	HashTable *active_symbol_table = EG(active_symbol_table);
	zq_stack_data stack;
	zq_user_func_data user_data = {};
	callee_stub stub;

	EG(opline_ptr) = caller->op_array ? &caller->opline : NULL;
	EG(active_op_array) = caller->op_array;
	if (caller->op_array) {
		EG(active_symbol_table) = caller->symbol_table;
	}
	if (call->is_closure) {
		put_stub(&stub, caller, call->func, call->scope);
	}
	describe_call(&stack, call, caller);
	if (ZQG(profile_end_time) || is_watched_after(zq_globals(TSRMLS_C), call)) {
		build_full_name(&user_data, &stack);
	}
	user_data.llist_comp_ele = call->is_awaited ? call->component : NULL;
	user_data.component_generation = call->component_generation;
	zq_after_function_call(&stack, &user_data, begin_us TSRMLS_CC);
	free_full_name(&user_data, &stack);
	if (call->is_closure) {
		remove_stub(&stub, caller);
	}
	EG(opline_ptr) = opline_ptr;
	EG(active_op_array) = active_op_array;
	EG(active_symbol_table) = active_symbol_table;
}

static zend_never_inline void intercept_user_call(zend_execute_data *execute_data, zend_execute_data *caller TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	user_call call;
	call.is_closure = call.is_awaited = false;
	if (!identify_user_call(&call, g, caller TSRMLS_CC)) {
		_zend_execute_ex(execute_data TSRMLS_CC);
		return;
	}
	call.return_slot = EG(return_value_ptr_ptr);
	if (UNEXPECTED(g->tracer_level == 1 || g->profile_end_time) || is_watched(g, &call)) {
		before_user_call(&call, caller TSRMLS_CC);
	}
	uint64 begin_us = zq_clock_us(&g->clock);
	zq_call_begins(g, caller, begin_us);
	_zend_execute_ex(execute_data TSRMLS_CC);
	zq_call_returned(g);
	if (g->hook_enabled &&
		(UNEXPECTED(call.is_awaited) || UNEXPECTED(took_long(g, begin_us)) || is_watched_after(g, &call))) {
		after_user_call(&call, caller, begin_us TSRMLS_CC);
	}
	drop_closure_name(&call);
	g->tracer_level = call.level_before;
}

void zq_execute_ex(zend_execute_data *execute_data TSRMLS_DC)
{
	zend_execute_data *caller = execute_data->prev_execute_data;
	/* A generator's caller frame and argument stack are gone before its body's hook returns: it passes through. */
	if (zq_is_watching(zq_globals(TSRMLS_C)) && caller && !(execute_data->op_array->fn_flags & ZEND_ACC_GENERATOR)) {
		intercept_user_call(execute_data, caller TSRMLS_CC);
	} else {
		_zend_execute_ex(execute_data TSRMLS_CC);
	}
}

/* ---- compiling --------------------------------------------------------------------------------------------------- */

/* Adds a slow compilation to the trace; adopts `filename`. */
static void trace_compile(char *filename, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	tracer_element *element = tracer_element_alloc("PHP", "compile");
	element->filename = filename;
	element->start = begin_us;
	element->end = end_us;
	zq_trace_append(element TSRMLS_CC);
}

static zend_op_array *compile_unseen(zend_file_handle *file_handle, int type TSRMLS_DC)
{
	return _zend_compile_file ? _zend_compile_file(file_handle, type TSRMLS_CC)
							  : compile_file(file_handle, type TSRMLS_CC);
}

zend_op_array *zq_compile_file(zend_file_handle *file_handle, int type TSRMLS_DC)
{
	/* This hook outlives the module's globals. */
	if (!g_module_up || !zq_is_watching(zq_globals(TSRMLS_C)) || !file_handle || !file_handle->filename) {
		return compile_unseen(file_handle, type TSRMLS_CC);
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	char *filename = estrdup(file_handle->filename); /* opening may replace it */
	uint64 begin_us = zq_clock_us(&g->clock);
	zend_execute_data *around = g->compiling_in;
	g->compiling_in = EG(current_execute_data);
	zq_radar_tables before = zq_radar_tables_now(TSRMLS_C);
	zend_op_array *compiled = compile_unseen(file_handle, type TSRMLS_CC);
	g->compiling_in = around;
	uint64 end_us = zq_clock_us(&g->clock);
	zq_radar_scan(compiled, before TSRMLS_CC);
	if (!g->hook_enabled) { /* the script ended its action while an error handler ran */
		efree(filename);
		return compiled;
	}
	zq_component_add("PHP/NULL/compile", (int)((end_us - begin_us) / 1000), 0 TSRMLS_CC);
	if (g->action_tracer_enabled && end_us - begin_us > g->tracer_threshold_tick) {
		trace_compile(filename, begin_us, end_us TSRMLS_CC);
	} else {
		efree(filename);
	}
	return compiled;
}
