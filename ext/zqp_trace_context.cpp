/* Keeping of the trace context. Spans are numbers that follow one random number, so that a call costs no system call.
 */
#include "zqp_trace_context.h"

#include <sys/random.h>

static const unsigned MOST_CALLS = 4096, FIRST_CALLS = 16;

static uint64 bytes_as_number(const unsigned char *id)
{
	uint64 number;
	memcpy(&number, id, sizeof(number));
	return number;
}

static uint64 random_number(void)
{
	uint64 number;
	if (getrandom(&number, sizeof(number), GRND_NONBLOCK) != (ssize_t)sizeof(number)) {
		number = cycle_timer() ^ (uint64)(uintptr_t)&number << 32 ^ (uint64)getpid();
	}
	return number;
}

/* Of what a monitored caller sent with its identity, the span alone is new. */
static void take_incoming(zq_trace_context *context, const char *incoming TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_traceparent caller;
	if (!incoming || !zq_read_traceparent(incoming, &caller)) {
		return;
	}
	if (g->transaction_parent) {
		unsigned char trace_id[ZQ_TRACE_ID_SIZE];
		zq_trace_id_of(trace_id, g->transaction_id ? g->transaction_id : "");
		if (!g->transaction_id || memcmp(trace_id, caller.trace_id, sizeof(trace_id)) != 0) {
			return;
		}
	} else if (g->transaction_tracer_enabled) {
		char *id = (char *)ecalloc(1, 2 * ZQ_TRACE_ID_SIZE + 1);
		zq_write_hex(caller.trace_id, ZQ_TRACE_ID_SIZE, id);
		zq_replace_text(&g->transaction_id, id);
	}
	memcpy(context->own.trace_id, caller.trace_id, sizeof(caller.trace_id));
	memcpy(context->parent, caller.span_id, sizeof(caller.span_id));
	context->own.sampled = caller.sampled;
}

void zq_trace_context_begin(const char *incoming TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!g->traceparent_wanted || !g->details || g->details->context) {
		return;
	}
	zq_trace_context *context = (zq_trace_context *)ecalloc(1, sizeof(zq_trace_context));
	context->own.sampled = true;
	context->next_span = random_number();
	uint64 span = zq_new_span(context);
	memcpy(context->own.span_id, &span, sizeof(span));
	take_incoming(context, incoming TSRMLS_CC);
	g->details->context = context;
}

void zq_trace_context_end(TSRMLS_D)
{
	zq_trace_context *context = zq_trace_context_of(TSRMLS_C);
	if (!context) {
		return;
	}
	ZQG(details)->context = NULL;
	if (context->calls) {
		efree(context->calls);
	}
	if (context->curl_lists) {
		zend_hash_destroy(context->curl_lists);
		efree(context->curl_lists);
	}
	efree(context);
}

const unsigned char *zq_trace_id(zq_trace_context *context TSRMLS_DC)
{
	static const unsigned char none[ZQ_TRACE_ID_SIZE] = {};
	unsigned char *id = context->own.trace_id;
	if (memcmp(id, none, sizeof(none)) == 0) {
		const char *transaction = ZQG(transaction_id);
		if (!transaction || !*transaction) {
			return NULL;
		}
		zq_trace_id_of(id, transaction);
	}
	return id;
}

uint64 zq_own_span(const zq_trace_context *context)
{
	return bytes_as_number(context->own.span_id);
}

uint64 zq_new_span(zq_trace_context *context)
{
	if (context->call_count >= MOST_CALLS) {
		return zq_own_span(context);
	}
	uint64 number = context->next_span += 0x9E3779B97F4A7C15u; /* splitmix64 */
	number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9u;
	number = (number ^ (number >> 27)) * 0x94d049bb133111ebu;
	number ^= number >> 31;
	return number ? number : 1;
}

void zq_append_traceparent(smart_str *dest, zq_trace_context *context, uint64 span TSRMLS_DC)
{
	zq_traceparent call = context->own;
	memcpy(call.trace_id, zq_trace_id(context TSRMLS_CC), sizeof(call.trace_id));
	memcpy(call.span_id, &span, sizeof(span));
	char value[ZQ_TRACEPARENT_LEN + 1];
	zq_write_traceparent(call, value);
	zq_append(dest, value, ZQ_TRACEPARENT_LEN);
}

bool zq_url_takes_traceparent(const char *url TSRMLS_DC)
{
	return url && !zq_host_is_denied(url, ZQG(traceparent_deny)) && !zq_url_is_signed(url);
}

void zq_call_carried(uint64 span TSRMLS_DC)
{
	if (zq_trace_context *context = zq_trace_context_of(TSRMLS_C)) {
		context->call_span = span;
	}
}

void zq_note_call_span(zq_trace_context *context, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	uint64 span = context->call_span;
	context->call_span = 0;
	const zend_llist *list = ZQG(webservices);
	if (!span || span == zq_own_span(context) || context->call_count >= MOST_CALLS) {
		return;
	}
	if (context->call_count == context->call_room) {
		context->call_room = context->call_room ? context->call_room * 2 : FIRST_CALLS;
		context->calls = (zq_call_span *)safe_erealloc(context->calls, context->call_room, sizeof(zq_call_span), 0);
	}
	context->calls[context->call_count++] = {
		span, list->tail->data, (unsigned)list->count - 1, ZQ_NO_NODE, begin_us, end_us - begin_us};
}
