/* What is noted of a call that ends without returning: names, times and place, in memory of the process. Behind a
 * memory limit the request has none, and a time limit strikes in the middle of an allocation; trace and components get
 * it when the action is reported. */
#include "zqp_open_calls.h"

#include "zqp_component.h"
#include "zqp_lock.h"
#include "zqp_tracer.h"

/* Scripts end seldom more than once, and there are no more rows than these at a time. */
static const unsigned MOST_NOTED = 10 * ZQ_OPEN_CALLS;

struct zq_ended_call {
	zq_ended_call *next;
	uint64 start, end;           /* us */
	char *cls, *func, *filename; /* behind the record; cls and filename may be null */
	int lineno;
	bool is_traced;
	bool is_component;
	int exclusive_ms; /* of a component */
};

const char *zq_kind_word(const zend_execute_data *frame)
{
	if (!frame->opline || frame->opline->opcode != ZEND_INCLUDE_OR_EVAL) {
		return NULL;
	}
	switch (frame->opline->extended_value) {
	case ZEND_EVAL: return "eval";
	case ZEND_INCLUDE: return "include";
	case ZEND_INCLUDE_ONCE: return "include_once";
	case ZEND_REQUIRE: return "require";
	case ZEND_REQUIRE_ONCE: return "require_once";
	}
	return NULL;
}

zq_callee zq_callee_of(zend_execute_data *frame TSRMLS_DC)
{
	const zend_function *function = frame->function_state.function;
	if (!function->common.function_name) {
		return {NULL, zq_kind_word(frame)};
	}
	return {zq_class_of_call(function, frame->object TSRMLS_CC), function->common.function_name};
}

void zq_no_call_is_open(zend_zqprof_globals *g)
{
	g->open_calls = 0;
	g->tracer_level = g->webservice_should_ignored = g->ws_enabled = 0;
	g->compiling_in = NULL;
}

/* Copies a text to `*room`, which moves behind it; null for none. */
static char *put_text(char **room, const char *text, size_t size)
{
	char *at = *room;
	if (!text) {
		return NULL;
	}
	memcpy(at, text, size);
	*room += size;
	return at;
}

static zq_ended_call *note(const char *cls, const char *func, const char *filename)
{
	size_t cls_size = cls ? strlen(cls) + 1 : 0, func_size = strlen(func) + 1;
	size_t filename_size = filename ? strlen(filename) + 1 : 0;
	zq_ended_call *call = (zq_ended_call *)malloc(sizeof *call + cls_size + func_size + filename_size);
	if (call) {
		char *room = (char *)(call + 1);
		memset(call, 0, sizeof *call);
		call->cls = put_text(&room, cls, cls_size);
		call->func = put_text(&room, func, func_size);
		call->filename = put_text(&room, filename, filename_size);
	}
	return call;
}

/* The component that the frame's call has opened, null for none; it is found once only. */
static component_element *take_component(zend_zqprof_globals *g, const zend_execute_data *frame, int elapsed_ms)
{
	for (zend_llist_element *at = g->components ? g->components->tail : NULL; at; at = at->prev) {
		component_element *component = (component_element *)at->data;
		if (component->frame == frame) {
			component->frame = NULL;
			component->has_ended = true;
			if (at->prev && elapsed_ms > 0) {
				((component_element *)at->prev->data)->exclusive += elapsed_ms;
			}
			return component;
		}
	}
	return NULL;
}

static void end_call(zend_execute_data *frame, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_callee callee = zq_callee_of(frame TSRMLS_CC);
	int elapsed_ms = (int)((end_us - begin_us) / 1000);
	bool is_traced = g->action_tracer_enabled && end_us - begin_us > g->tracer_threshold_tick &&
		begin_us >= g->rinit_tick && g->ended_count < MOST_NOTED;
	const component_element *component = take_component(g, frame, elapsed_ms);
	if (!callee.func || (!is_traced && !(component && elapsed_ms > 0))) {
		return;
	}
	const char *filename = NULL;
	int lineno = 0;
	if (elapsed_ms >= g->action_tracer_stack_trace_threshold) {
		lineno = zq_calling_place(frame, &filename TSRMLS_CC);
	}
	zq_ended_call *call = note(callee.scope ? callee.scope->name : NULL, callee.func, filename);
	if (!call) {
		return;
	}
	call->start = begin_us;
	call->end = end_us;
	call->lineno = lineno;
	call->is_traced = is_traced;
	call->is_component = component && elapsed_ms > 0;
	call->exclusive_ms = component ? component->exclusive : 0;
	*(g->ended_calls ? &g->last_ended_call->next : &g->ended_calls) = call;
	g->last_ended_call = call;
	g->ended_count++;
}

/* A SOAP client makes exceptions of the fatal errors below its own methods, and its caller goes on. */
static bool turns_errors_into_exceptions(const zend_execute_data *frame)
{
	const zend_function *callee = frame->function_state.function;
	return callee->type == ZEND_INTERNAL_FUNCTION && callee->common.scope &&
		strcmp(callee->common.scope->name, "SoapClient") == 0;
}

void zq_end_open_calls(int is_error TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!g->hook_enabled || !g->agent_enabled) {
		return;
	}
	/* what the agent calls runs on frames apart */
	zend_execute_data *frame = g->in_agent_call ? g->script_frame : EG(current_execute_data);
	uint64 now = zq_clock_us(&g->clock);
	sigset_t timers;
	zq_hold_timers(&timers);
	for (unsigned row = g->open_calls < ZQ_OPEN_CALLS ? g->open_calls : (unsigned)ZQ_OPEN_CALLS; row > 0 && frame;
		 row--) {
		zend_execute_data *at = frame;
		while (at && at != g->open_frames[row - 1]) {
			at = at->prev_execute_data;
		}
		if (!at) {
			continue; /* it was left long ago */
		}
		if (is_error && turns_errors_into_exceptions(at)) {
			g->open_calls = row;
			zq_allow_timers(&timers);
			return;
		}
		end_call(at, g->open_starts[row - 1], now TSRMLS_CC);
		frame = at->prev_execute_data;
	}
	zq_no_call_is_open(g);
	zq_allow_timers(&timers);
}

static void record(const zq_ended_call *call TSRMLS_DC)
{
	if (call->is_component) {
		zq_component_sum(call->cls, call->func, (int)((call->end - call->start) / 1000), call->exclusive_ms TSRMLS_CC);
	}
	if (call->is_traced) {
		tracer_element *element = tracer_element_alloc(call->cls, call->func);
		element->start = call->start;
		element->end = call->end;
		element->lineno = call->lineno;
		element->filename = call->filename ? estrdup(call->filename) : NULL;
		zq_trace_append(element TSRMLS_CC);
	}
}

void zq_record_ended_calls(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->ended_count = 0;
	for (const zq_ended_call *call = g->ended_calls; call; call = call->next) {
		record(call TSRMLS_CC);
	}
	zq_forget_ended_calls(g);
}

void zq_forget_ended_calls(zend_zqprof_globals *g)
{
	while (g->ended_calls) {
		zq_ended_call *call = g->ended_calls;
		g->ended_calls = call->next;
		free(call);
	}
	g->ended_count = 0;
}
