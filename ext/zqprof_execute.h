/* What the hooks around user code and around internal functions share. */
#ifndef ZQPROF_EXECUTE_H
#define ZQPROF_EXECUTE_H

#include "php_zqprof.h"
#include "zqp_wrapper.h"

/* While a closure's or trampoline's caller is looked at after the call, its callee may be freed memory: whoever walks
 * the frames must meet this instead. */
struct callee_stub {
	zend_internal_function function;
	zend_function *gone;
};

static inline void put_stub(callee_stub *stub, zend_execute_data *frame, const char *name, zend_class_entry *scope)
{
	memset(stub, 0, sizeof(*stub));
	stub->function.type = ZEND_INTERNAL_FUNCTION;
	stub->function.function_name = name;
	stub->function.scope = scope;
	stub->gone = frame->function_state.function;
	frame->function_state.function = (zend_function *)&stub->function;
}

static inline void remove_stub(const callee_stub *stub, zend_execute_data *frame)
{
	frame->function_state.function = stub->gone;
}

/* Whether a call that began then is one for the trace. */
static inline int took_long(zend_zqprof_globals *g, uint64 begin_us)
{
	return g->action_tracer_enabled && (int64_t)(zq_clock_us(&g->clock) - begin_us) > (int64_t)g->tracer_threshold_tick;
}

#endif
