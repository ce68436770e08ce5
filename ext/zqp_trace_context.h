/* The action's place in a trace that services of other makers share: what an incoming `traceparent` says, the spans
 * that outgoing calls are, and what the details record has of both. Kept only while the daemon asks for it, within the
 * details. */
#ifndef ZQP_TRACE_CONTEXT_H
#define ZQP_TRACE_CONTEXT_H

#include "zqp_details.h"
#include "zqp_traceparent.h"

/* An outgoing call that carried a span's id. */
typedef struct zq_call_span {
	uint64 span;         /* its bytes */
	const void *element; /* of `webservices` */
	unsigned number;     /* of it in the list, from 0 */
	unsigned node;       /* of the trace, in the packet's order; ZQ_NO_NODE: it is in none */
	uint64 begin_us, took_us;
} zq_call_span;

inline constexpr unsigned ZQ_NO_NODE = 0xFFFFFFFF;

/* A curl handle's own list of headers, of which the list that is sent is a copy with ours. */
typedef struct zq_curl_list {
	zval *headers; /* all but the trace context; owned */
	bool forbids;  /* one of them does */
	bool left;     /* the script has taken the list in hand, or another handle shares it: PHP frees what it replaces */
	bool withheld; /* the handle's URL forbade it once; until the script sets another: redirects hide the first */
	uint64 span;   /* that the handle carries now; 0: none */
} zq_curl_list;

/* Request memory. */
typedef struct zq_trace_context {
	zq_traceparent own; /* the trace, and the action as a span of it; the trace id is zeroes until it is asked for */
	unsigned char parent[ZQ_SPAN_ID_SIZE]; /* whose span led to the action; zeroes: nobody's that is known */
	uint64 next_span;
	uint64 call_span;   /* of the call that is recorded next; 0: it has none */
	uint64 nusoap_span; /* of the transport that is sending */
	zq_call_span *calls;
	unsigned call_count, call_room, last_found;
	HashTable *curl_lists; /* of zq_curl_list, by resource id */
} zq_trace_context;

/* The open action's; null when the daemon does not ask for it, or not for details. */
static inline zq_trace_context *zq_trace_context_of(TSRMLS_D)
{
	const zq_details *details = ZQG(details);
	return details ? details->context : NULL;
}

/* Begins the action's context, after its caller has been read and before it gets an id of its own. `incoming` is the
 * request's header, or null. A caller of another maker lends the action its trace, by whose id the transaction then
 * goes as well; a monitored one has said which transaction it is, and only lends its span. */
void zq_trace_context_begin(const char *incoming TSRMLS_DC);
/* Frees it, before the details. */
void zq_trace_context_end(TSRMLS_D);

/* The id of the trace; null while the action belongs to no transaction. */
const unsigned char *zq_trace_id(zq_trace_context *context TSRMLS_DC);
/* The id of the action's own span. */
uint64 zq_own_span(const zq_trace_context *context);
/* A new span for the call that is about to be made; the action's own when there are too many to be told apart. */
uint64 zq_new_span(zq_trace_context *context);
/* The header's value for a call that is that span. */
void zq_append_traceparent(smart_str *dest, zq_trace_context *context, uint64 span TSRMLS_DC);
/* True when requests for this URL may carry the context. */
bool zq_url_takes_traceparent(const char *url TSRMLS_DC);

/* Says what the call carried that is recorded next; 0: nothing. */
void zq_call_carried(uint64 span TSRMLS_DC);
/* The call that carried it has been recorded as the last of `webservices`. */
void zq_note_call_span(zq_trace_context *context, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* The call is the node of the trace that is being written. Nodes come in the order in which calls began, which is
 * nearly that in which they ended. */
static inline void zq_note_call_node(zq_trace_context *context, const void *element, unsigned node)
{
	for (unsigned i = 0; i < context->call_count; i++) {
		unsigned at = (context->last_found + i) % context->call_count;
		if (context->calls[at].element == element) {
			context->calls[at].node = node;
			context->last_found = at + 1;
			return;
		}
	}
}

#endif
