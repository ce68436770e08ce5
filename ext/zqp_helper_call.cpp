/* Calling PHP code from inside the engine's hooks, unseen by the script: the callee runs on a frame of its own, as a
 * shutdown function does, so that it meets neither the script's frames and symbol tables nor its handlers and pending
 * exceptions, and leaves no trace of its own. */
#include "zqp_helper.h"

enum { MAX_PARAMS = 8 };

/* What the callee must not see, and what it could change. */
typedef struct script_state {
	zend_execute_data *frame;
	zend_op **opline_ptr;
	zend_op *opline_before_exception;
	zend_op_array *op_array;
	HashTable *symbol_table;
	zval *exception, *prev_exception;
	zval *error_handler;
	int error_handler_mask;
	zend_ptr_stack error_handlers;
	zend_stack error_handler_masks;
	zend_error_handling_t error_handling;
	zend_llist_element *tick_functions;
	int ticks_count;
	int in_agent_call;
} script_state;

static void save_script(script_state *saved TSRMLS_DC)
{
	saved->frame = EG(current_execute_data);
	saved->opline_ptr = EG(opline_ptr);
	saved->opline_before_exception = EG(opline_before_exception);
	saved->op_array = EG(active_op_array);
	saved->symbol_table = EG(active_symbol_table);
	saved->exception = EG(exception);
	saved->prev_exception = EG(prev_exception);
	saved->error_handler = EG(user_error_handler);
	saved->error_handler_mask = EG(user_error_handler_error_reporting);
	saved->error_handlers = EG(user_error_handlers);
	saved->error_handler_masks = EG(user_error_handlers_error_reporting);
	saved->error_handling = EG(error_handling);
	saved->tick_functions = PG(tick_functions).head;
	saved->ticks_count = EG(ticks_count);
	saved->in_agent_call = ZQG(in_agent_call);
}

/* From here on the hooks pass everything through. The script's frames stay findable. */
static void begin_agent_call(TSRMLS_D)
{
	if (ZQG(in_agent_call)++ == 0) {
		ZQG(script_frame) = EG(current_execute_data);
	}
}

/* Steps onto `base`, with `symbols` as the caller's variables. EG(error_reporting) stays: 0 would hide fatal errors. */
static void step_aside(zend_execute_data *base, HashTable *symbols TSRMLS_DC)
{
	/* an exception thrown below walks the frames and reads each one's callee */
	static zend_internal_function agent = {ZEND_INTERNAL_FUNCTION, "agent", NULL, 0, NULL, 0, 0, NULL, NULL, NULL};

	memset(base, 0, sizeof(*base));
	base->function_state.function = (zend_function *)&agent;
	zend_hash_init(symbols, 0, NULL, ZVAL_PTR_DTOR, 0);
	begin_agent_call(TSRMLS_C);
	EG(current_execute_data) = base;
	EG(opline_ptr) = NULL;
	EG(active_op_array) = NULL;
	EG(active_symbol_table) = symbols;
	EG(exception) = EG(prev_exception) = NULL;
	EG(user_error_handler) = NULL;
	zend_ptr_stack_init(&EG(user_error_handlers));
	zend_stack_init(&EG(user_error_handlers_error_reporting));
	EG(error_handling) = EH_NORMAL;
	PG(tick_functions).head = NULL; /* the callee may have been compiled under declare(ticks) */
}

/* The frame is not among it: after a bailout the engine has none, and must not be given one back. */
static void step_back(const script_state *saved TSRMLS_DC)
{
	ZQG(in_agent_call) = saved->in_agent_call;
	EG(error_handling) = saved->error_handling;
	EG(ticks_count) = saved->ticks_count;
	if (saved->tick_functions) { /* the tail stayed: what the callee registered has come after them */
		PG(tick_functions).head = saved->tick_functions;
	}
	EG(user_error_handler) = saved->error_handler;
	EG(user_error_handler_error_reporting) = saved->error_handler_mask;
	EG(user_error_handlers) = saved->error_handlers;
	EG(user_error_handlers_error_reporting) = saved->error_handler_masks;
	EG(opline_ptr) = saved->opline_ptr;
	EG(active_op_array) = saved->op_array;
	EG(active_symbol_table) = saved->symbol_table;
}

static void restore_frame(const script_state *saved TSRMLS_DC)
{
	EG(current_execute_data) = saved->frame;
	EG(exception) = saved->exception;
	EG(prev_exception) = saved->prev_exception;
	EG(opline_before_exception) = saved->opline_before_exception;
}

/* Releases a pending exception; 1 when there was one. It leaves the engine first, since its destructor may run PHP. */
static int drop_exception(TSRMLS_D)
{
	zval *exception = EG(exception);
	if (!exception) {
		return 0;
	}
	EG(exception) = NULL;
	zval_ptr_dtor(&exception);
	return 1;
}

static void drop_callee_leftovers(HashTable *symbols TSRMLS_DC)
{
	zval *current = EG(user_error_handler);
	if (current) {
		EG(user_error_handler) = NULL; /* first: a destructor run by the release may raise an error */
		zval_ptr_dtor(&current);
	}
	while (zend_ptr_stack_num_elements(&EG(user_error_handlers))) {
		zval *handler = (zval *)zend_ptr_stack_pop(&EG(user_error_handlers));
		zval_ptr_dtor(&handler);
	}
	zend_ptr_stack_destroy(&EG(user_error_handlers));
	zend_stack_destroy(&EG(user_error_handlers_error_reporting));
	EG(active_symbol_table) = NULL;
	zend_hash_destroy(symbols);
	drop_exception(TSRMLS_C); /* thrown by a destructor, the first exception's perhaps */
}

/* What is done aside: a call, or the reading of a property. */
typedef struct aside_task {
	zval *object;
	zval *callable;          /* whatever PHP code can call; or */
	zend_function *function; /* a function that is known already; or */
	zend_class_entry *scope; /* the class that reads */
	const char *property;
	zval *retval;
	zend_uint param_count;
	zval **params;
} aside_task;

/* 1 when nothing but the function itself is needed to call it. The rest is left to the engine: references, deprecated
 * functions, trampolines, and what it refuses at the end of a request. */
static bool is_plain(const zend_fcall_info_cache *target, zend_uint param_count, zval **params TSRMLS_DC)
{
	const zend_function *function = target->function_handler;
	const zend_uint special = ZEND_ACC_ABSTRACT | ZEND_ACC_DEPRECATED | ZEND_ACC_CALL_VIA_HANDLER;
	const zval *object = target->object_ptr;

	if (function->type != ZEND_INTERNAL_FUNCTION || function->common.fn_flags & special || !EG(active) ||
		(object &&
			!(EG(objects_store).object_buckets && EG(objects_store).object_buckets[Z_OBJ_HANDLE_P(object)].valid))) {
		return false;
	}
	for (zend_uint i = 0; i < param_count; i++) {
		if (ARG_SHOULD_BE_SENT_BY_REF(function, i + 1) || PZVAL_IS_REF(params[i])) {
			return false;
		}
	}
	return true;
}

/* Calls an internal function past the hooks of all extensions, with what zend_call_function() sets up around it. A
 * debugger would take the call for the script's and trace it, count it or stop in it; and before its own request start,
 * which may come after ours, Xdebug cannot bear to see one. The caller owns the result. */
static zval *call_plain(const zend_fcall_info_cache *target, zend_uint param_count, zval **params TSRMLS_DC)
{
	zend_function *function = target->function_handler;
	zend_class_entry *scope = EG(scope), *called_scope = EG(called_scope);
	zval *self = EG(This), *object = target->object_ptr, *result;
	zend_execute_data frame;

	ZEND_VM_STACK_GROW_IF_NEEDED((int)param_count + 1);
	for (zend_uint i = 0; i < param_count; i++) {
		Z_ADDREF_P(params[i]);
		zend_vm_stack_push(params[i] TSRMLS_CC);
	}
	memset(&frame, 0, sizeof(frame));
	frame.function_state.function = function;
	frame.function_state.arguments = zend_vm_stack_top(TSRMLS_C);
	frame.object = object;
	frame.prev_execute_data = EG(current_execute_data);
	zend_vm_stack_push((void *)(zend_uintptr_t)param_count TSRMLS_CC);
	EG(scope) = function->common.scope ? function->common.scope : target->calling_scope;
	EG(called_scope) = target->called_scope ? target->called_scope : called_scope;
	EG(This) = function->common.fn_flags & ZEND_ACC_STATIC ? NULL : object;
	if (EG(This)) {
		Z_ADDREF_P(EG(This));
	}
	EG(current_execute_data) = &frame;
	ALLOC_INIT_ZVAL(result);
	function->internal_function.handler((int)param_count, result, &result, object, 1 TSRMLS_CC);
	zend_vm_stack_clear_multiple(0 TSRMLS_CC);
	if (EG(This)) {
		zval_ptr_dtor(&EG(This));
	}
	EG(This) = self;
	EG(called_scope) = called_scope;
	EG(scope) = scope;
	EG(current_execute_data) = frame.prev_execute_data;
	return result;
}

static int call_through_engine(const aside_task *task, zend_fcall_info_cache *target, zval **result TSRMLS_DC)
{
	zend_fcall_info call;
	zval **slots[MAX_PARAMS];
	for (zend_uint i = 0; i < task->param_count; i++) {
		slots[i] = &task->params[i];
	}
	memset(&call, 0, sizeof(call));
	call.size = sizeof(call);
	call.function_table = EG(function_table);
	call.function_name = task->callable;
	call.object_ptr = task->object;
	call.retval_ptr_ptr = result;
	call.param_count = task->param_count;
	call.params = slots;
	call.no_separation = 1;
	return zend_call_function(&call, target TSRMLS_CC);
}

static int call(const aside_task *task, zend_fcall_info_cache *target TSRMLS_DC)
{
	zval *result = NULL;
	int outcome = SUCCESS;
	if (is_plain(target, task->param_count, task->params TSRMLS_CC)) {
		result = call_plain(target, task->param_count, task->params TSRMLS_CC);
	} else {
		outcome = call_through_engine(task, target, &result TSRMLS_CC);
	}
	if (drop_exception(TSRMLS_C)) {
		outcome = FAILURE;
	}
	if (!result) {
		return outcome;
	}
	if (outcome == SUCCESS) {
		COPY_PZVAL_TO_ZVAL(*task->retval, result);
	} else {
		zval_ptr_dtor(&result);
	}
	return outcome;
}

static int call_known(const aside_task *task TSRMLS_DC)
{
	zend_fcall_info_cache target;
	memset(&target, 0, sizeof(target));
	target.initialized = 1;
	target.function_handler = task->function;
	return call(task, &target TSRMLS_CC);
}

static int call_checked(const aside_task *task TSRMLS_DC)
{
	zend_fcall_info_cache target;
	char *error = NULL;
	/* asked first, because the call itself would raise a warning for some of what cannot be called */
	int callable = zend_is_callable_ex(
		task->callable, task->object, IS_CALLABLE_CHECK_SILENT, NULL, NULL, &target, &error TSRMLS_CC);
	if (error) {
		efree(error);
	}
	if (callable) {
		return call(task, &target TSRMLS_CC);
	}
	drop_exception(TSRMLS_C); /* an autoloader's */
	return FAILURE;
}

/* Class handlers may answer with a value that nobody owns yet, or with one that the object keeps. */
static int read_checked(const aside_task *task TSRMLS_DC)
{
	zval *value =
		zend_read_property(task->scope, task->object, task->property, (int)strlen(task->property), 1 TSRMLS_CC);
	int outcome = value && !EG(exception) ? SUCCESS : FAILURE;
	if (value) {
		Z_ADDREF_P(value);
		if (outcome == SUCCESS) {
			ZVAL_COPY_VALUE(task->retval, value);
			zval_copy_ctor(task->retval);
		}
		zval_ptr_dtor(&value);
	}
	drop_exception(TSRMLS_C);
	return outcome;
}

static int perform(const aside_task *task TSRMLS_DC)
{
	return task->property ? read_checked(task TSRMLS_CC)
		: task->function  ? call_known(task TSRMLS_CC)
						  : call_checked(task TSRMLS_CC);
}

static int run_aside(const aside_task *task TSRMLS_DC)
{
	script_state saved;
	zend_execute_data base;
	HashTable symbols;
	volatile int outcome = FAILURE, bailed_out = 0;

	save_script(&saved TSRMLS_CC);
	step_aside(&base, &symbols TSRMLS_CC);
	zend_try
	{
		outcome = perform(task TSRMLS_CC);
		drop_callee_leftovers(&symbols TSRMLS_CC);
	}
	zend_catch
	{
		bailed_out = 1;
	}
	zend_end_try();
	step_back(&saved TSRMLS_CC); /* in any case: the symbol table in use until now lies in this frame */
	if (bailed_out) {
		zend_bailout();
	}
	restore_frame(&saved TSRMLS_CC);
	return outcome;
}

int zq_call_user_function(
	HashTable *, zval **object, zval *function_name, zval *retval, zend_uint param_count, zval **params TSRMLS_DC)
{
	INIT_ZVAL(*retval);
	if (!function_name || param_count > MAX_PARAMS) {
		return FAILURE;
	}
	aside_task task = {object ? *object : NULL, function_name, NULL, NULL, NULL, retval, param_count, params};
	return run_aside(&task TSRMLS_CC);
}

int zq_call_named(zval *object, const char *function, zval *retval, zend_uint param_count, zval **params TSRMLS_DC)
{
	aside_task task = {NULL, NULL, NULL, NULL, NULL, retval, param_count, params};
	if (!object && param_count <= MAX_PARAMS &&
		zend_hash_find(EG(function_table), function, (uint)strlen(function) + 1, (void **)&task.function) == SUCCESS) {
		INIT_ZVAL(*retval);
		return run_aside(&task TSRMLS_CC);
	}
	zval *name;
	MAKE_STD_ZVAL(name);
	ZVAL_STRING(name, function, 1);
	zval **receiver = object ? &object : NULL;
	int outcome = zq_call_user_function(EG(function_table), receiver, name, retval, param_count, params TSRMLS_CC);
	zval_ptr_dtor(&name);
	return outcome;
}

int zq_read_property(zend_class_entry *scope, zval *object, const char *property, zval *retval TSRMLS_DC)
{
	INIT_ZVAL(*retval);
	if (!object || Z_TYPE_P(object) != IS_OBJECT) {
		return FAILURE;
	}
	aside_task task = {object, NULL, NULL, scope ? scope : Z_OBJCE_P(object), property, retval, 0, NULL};
	return run_aside(&task TSRMLS_CC);
}

void zq_release_result(zval *result TSRMLS_DC)
{
	if (Z_TYPE_P(result) != IS_ARRAY && Z_TYPE_P(result) != IS_OBJECT) {
		zval_dtor(result);
		return;
	}
	volatile int bailed_out = 0;
	begin_agent_call(TSRMLS_C);
	zend_try
	{
		zval_dtor(result);
	}
	zend_catch
	{
		bailed_out = 1;
	}
	zend_end_try();
	ZQG(in_agent_call)--;
	if (bailed_out) {
		zend_bailout();
	}
}

int zq_callback_works(const char *name TSRMLS_DC)
{
	zend_function *current;
	if (zend_hash_find(EG(function_table), name, (uint)strlen(name) + 1, (void **)&current) != SUCCESS) {
		return 0;
	}
	for (const zend_function_entry *ours = g_functions; ours->fname; ours++) {
		if (strcmp(ours->fname, name) == 0) {
			return current->type == ZEND_INTERNAL_FUNCTION && current->internal_function.handler == ours->handler;
		}
	}
	return 0;
}

/* Calls `function` with the name of one of our own functions, which it keeps. */
static void hand_over_callback(const char *function, const char *callback TSRMLS_DC)
{
	zval *argument, result;
	if (!zq_callback_works(callback TSRMLS_CC)) {
		return;
	}
	MAKE_STD_ZVAL(argument);
	ZVAL_STRING(argument, callback, 1);
	zq_call_named(NULL, function, &result, 1, &argument TSRMLS_CC);
	zq_release_result(&result TSRMLS_CC);
	zval_ptr_dtor(&argument);
}

void register_transaction_callback(TSRMLS_D)
{
	if (!ZQG(transaction_parent) && !ZQG(rum_enabled)) {
		return;
	}
	hand_over_callback("register_shutdown_function", "zqprof_rshutdowncall" TSRMLS_CC);
	if (ZQG(transaction_parent)) {
		hand_over_callback("header_register_callback", "zqprof_headercall" TSRMLS_CC);
	}
}
