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
	uint64 start, end;                       /* us */
	char *cls, *func, *filename, *statement; /* after the record; all but func may be null */
	const char *vendor;                      /* of the statement, as sql_element has it */
	zq_place place;                          /* that ran it, while details are kept */
	const char *(*vendor_of)(const void *);
	int lineno;
	bool is_traced;
	bool is_component;
	int exclusive_ms; /* of a component */
};

bool (*zq_find_running_statement)(zend_execute_data *frame, zq_running_statement *found TSRMLS_DC);

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

/* Copies of the texts, one after the other, in a new record; null when there is no memory. */
static zq_ended_call *note(const char *cls, const char *func, const char *filename, const char *statement)
{
	const char *texts[] = {cls, func, filename, statement};
	size_t sizes[4], all = 0;
	for (int i = 0; i < 4; i++) {
		sizes[i] = texts[i] ? strnlen(texts[i], ZQ_MAX_STATEMENT) : 0;
		all += sizes[i] + 1;
	}
	zq_ended_call *call = (zq_ended_call *)calloc(1, sizeof(*call) + all);
	if (call) {
		char *room = (char *)(call + 1);
		char **fields[] = {&call->cls, &call->func, &call->filename, &call->statement};
		for (int i = 0; i < 4; i++) {
			*fields[i] = texts[i] ? (char *)memcpy(room, texts[i], sizes[i]) : NULL;
			room += sizes[i] + 1;
		}
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

static void append(zend_zqprof_globals *g, zq_ended_call *call)
{
	*(g->ended_calls ? &g->last_ended_call->next : &g->ended_calls) = call;
	g->last_ended_call = call;
	g->ended_count++;
}

/* The time of a statement counts at once, since it is to be taken from the component around it. */
static bool take_statement(
	zend_zqprof_globals *g, zend_execute_data *frame, zq_running_statement *sql, uint64 elapsed_us TSRMLS_DC)
{
	if (frame->function_state.function->type != ZEND_INTERNAL_FUNCTION ||
		!zq_find_running_statement(frame, sql TSRMLS_CC)) {
		return false;
	}
	zq_component_spent_outside((int)(elapsed_us / 1000) TSRMLS_CC);
	g->sum_db_metric += (int)(elapsed_us / 1000);
	if (g->details) {
		g->details->database_us += elapsed_us;
	}
	return true;
}

static void end_call(zend_execute_data *frame, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_callee callee = zq_callee_of(frame TSRMLS_CC);
	int elapsed_ms = (int)((end_us - begin_us) / 1000);
	bool is_noted = begin_us >= g->rinit_tick && g->ended_count < MOST_NOTED;
	bool is_traced = is_noted && g->action_tracer_enabled && end_us - begin_us > g->tracer_threshold_tick;
	zq_running_statement sql = {NULL, NULL, NULL, NULL};
	bool is_statement = is_noted && callee.func && take_statement(g, frame, &sql, end_us - begin_us TSRMLS_CC);
	const component_element *component = take_component(g, frame, elapsed_ms);
	bool is_component = component && elapsed_ms > 0;
	if (!callee.func || (!is_traced && !is_component && !is_statement)) {
		return;
	}
	zq_place place = {};
	place.source = sql.source;
	zq_details_locate(&place, frame TSRMLS_CC);
	bool has_place = elapsed_ms >= g->action_tracer_stack_trace_threshold;
	zq_ended_call *call =
		note(callee.scope ? callee.scope->name : NULL, callee.func, has_place ? place.file : NULL, sql.text);
	if (!call) {
		return;
	}
	call->start = begin_us;
	call->end = end_us;
	call->vendor = sql.vendor;
	call->vendor_of = sql.vendor_of;
	call->place = place;
	call->lineno = has_place ? (int)place.line : 0;
	call->is_traced = is_traced;
	call->is_component = is_component;
	call->exclusive_ms = component ? component->exclusive : 0;
	append(g, call);
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

static sql_element *record_statement(const zq_ended_call *call TSRMLS_DC)
{
	if (!call->statement || !ZQG(sqls)) {
		return NULL;
	}
	zq_details *details = ZQG(details);
	unsigned place = details ? zq_details_add_place(details, &call->place, call->vendor_of) : ZQ_NO_PLACE;
	int elapsed_ms = (int)((call->end - call->start) / 1000);
	return zq_keep_statement(ZQG(sqls), call->vendor, call->statement, elapsed_ms, place, 0);
}

static void record(const zq_ended_call *call TSRMLS_DC)
{
	sql_element *statement = record_statement(call TSRMLS_CC);
	if (call->is_component) {
		zq_component_sum(call->cls, call->func, (int)((call->end - call->start) / 1000), call->exclusive_ms TSRMLS_CC);
	}
	if (call->is_traced) {
		tracer_element *element = tracer_element_alloc(call->cls, call->func);
		element->start = call->start;
		element->end = call->end;
		element->lineno = call->lineno;
		element->filename = call->filename ? estrdup(call->filename) : NULL;
		if (statement && !ZQG(action_tracer_log_sql)) {
			element->data_type = ZQ_TRACER_SQL;
			element->data = statement;
		}
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
