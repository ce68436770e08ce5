/* The details record, the last of a metric packet, for a daemon that asks for it. Its body is a run of items, framed as
 * records are, so that readers pass over those that they do not know. */
#include <sys/time.h>

#include "zqp_component.h"
#include "zqp_details.h"
#include "zqp_details_items.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_json.h"
#include "zqp_nosql.h"
#include "zqp_trace_context.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"

#include <span>

namespace {

constexpr size_t MOST_BYTES = 256 << 10; /* of the record's body; items that do not fit are left out */
constexpr size_t MOST_TEXT = 4096;
constexpr size_t MOST_VENDOR = 32;
constexpr uint64 LONGEST_WAIT_US = 600 * 1000000ull;

struct writer {
	smart_str *packet;
	size_t end; /* the packet may grow up to here */
};

/* An item of two pieces. The first for which there is no room ends the record: those after it count on it. */
void append_item(writer *to, int type, const void *head, size_t head_len, const char *text, size_t len)
{
	if (to->packet->len + 4 + head_len + len > to->end) {
		to->end = 0;
		return;
	}
	zq_append_header(to->packet, type, head_len + len);
	zq_append(to->packet, (const char *)head, head_len);
	zq_append(to->packet, text, len);
}

struct figure {
	zq_details_item type;
	uint64 value;
};

#define ITEM(name, number) ZQ_ITEM_##name,
#define NONE(name, number)
constexpr zq_details_item ALL_FIGURES[] = {ZQ_DETAILS_ITEMS(ITEM, NONE)};
#undef ITEM
#undef NONE
constexpr size_t NOT_OF_ALL_ACTIONS = 2; /* the time in front of PHP, and the exit status */

/* The record begins with them, so that there is room. */
void append_figures(writer *to, std::span<const figure> figures)
{
	constexpr size_t size = 4 + sizeof(uint64);
	zq_reserve(to->packet, figures.size() * size);
	char *at = to->packet->c + to->packet->len;
	for (const figure &each : figures) {
		const char header[4] = {(char)each.type, 0, 0, sizeof(each.value)};
		memcpy(at, header, sizeof(header));
		memcpy(at + sizeof(header), &each.value, sizeof(each.value));
		at += size;
	}
	to->packet->len += figures.size() * size;
}

void append_text(writer *to, int type, const char *text)
{
	if (text && *text) {
		append_item(to, type, NULL, 0, text, strnlen(text, MOST_TEXT));
	}
}

/* Calls of caches and document stores, by their tables. */
struct store_sums {
	uint64 us, operations;
};

store_sums sum_of_stores(TSRMLS_D)
{
	store_sums sums = {0, 0};
	for (const HashTable *table : {ZQG(nosql_memcc), ZQG(nosql_mongo), ZQG(nosql_redis)}) {
		for (const Bucket *row = table ? table->pListHead : NULL; row; row = row->pListNext) {
			const nosql_hash_element *sum = (const nosql_hash_element *)row->pDataPtr;
			sums.us += sum->tsc;
			sums.operations += sum->calls;
		}
	}
	return sums;
}

/* How long the request waited in front of PHP by a stamp of the wall clock, "t=" and seconds with or without decimals,
 * milliseconds or microseconds: told apart by their size. False when it says nothing usable. */
bool waited_us(const char *stamp, uint64 began_us, uint64 *us)
{
	stamp += strspn(stamp, "ts= ");
	double value = zend_strtod(stamp, NULL);
	value *= value < 1e11 ? 1e6 : value < 1e14 ? 1e3 : 1;
	if (!(value > 0) || value > (double)began_us || (double)began_us - value > (double)LONGEST_WAIT_US) {
		return false;
	}
	*us = began_us - (uint64)value;
	return true;
}

void append_waiting(writer *to TSRMLS_DC)
{
	const char *stamp = ZQ_SERVER_TEXT("HTTP_X_QUEUE_START");
	struct timeval now;
	uint64 us;
	if (stamp && gettimeofday(&now, NULL) == 0) {
		uint64 now_us = (uint64)now.tv_sec * 1000000 + (uint64)now.tv_usec;
		if (waited_us(stamp, now_us - (cycle_timer() - ZQG(rinit_tick)), &us)) {
			const figure waited[] = {{ZQ_ITEM_WAITED_US, us}};
			append_figures(to, waited);
		}
	}
}

void append_sums(writer *to, const zq_details *details, uint64 statements TSRMLS_DC)
{
	uint64 user_us, system_us;
	zq_thread_times(&user_us, &system_us);
	store_sums stores = sum_of_stores(TSRMLS_C);
	const figure figures[] = {
		{ZQ_ITEM_DURATION_US, ZQG(rdown_tick) - ZQG(rinit_tick)},
		{ZQ_ITEM_DATABASE_US, details->database_us},
		{ZQ_ITEM_STATEMENTS, statements},
		{ZQ_ITEM_CACHES_US, stores.us},
		{ZQ_ITEM_CACHE_OPERATIONS, stores.operations},
		{ZQ_ITEM_SERVICES_US, details->services_us},
		{ZQ_ITEM_SERVICES, details->services},
		{ZQ_ITEM_USER_US, user_us - details->user_us},
		{ZQ_ITEM_SYSTEM_US, system_us - details->system_us},
		{ZQ_ITEM_PEAK_MEMORY, zend_memory_peak_usage(1 TSRMLS_CC)},
		{ZQ_ITEM_OUTPUT_BYTES, details->output_bytes},
	};
	static_assert(std::size(figures) + NOT_OF_ALL_ACTIONS == std::size(ALL_FIGURES),
		"a figure of zqp_details_items.h has no value");
	append_figures(to, figures);
}

void append_request(writer *to TSRMLS_DC)
{
	append_text(to, ZQ_ITEM_SCRIPT, ZQ_SERVER_TEXT("SCRIPT_FILENAME"));
	if (g_cli) {
		const figure status[] = {{ZQ_ITEM_EXIT_STATUS, (uint64)EG(exit_status)}};
		append_figures(to, status);
		return;
	}
	const char *uri = ZQ_SERVER_TEXT("REQUEST_URI");
	if (uri) {
		size_t len = strcspn(uri, "?");
		append_item(to, ZQ_ITEM_PATH, NULL, 0, uri, len < MOST_TEXT ? len : MOST_TEXT);
	}
	append_text(to, ZQ_ITEM_METHOD, SG(request_info).request_method);
	append_text(to, ZQ_ITEM_HOST, ZQ_SERVER_TEXT("HTTP_HOST"));
	append_waiting(to TSRMLS_CC);
}

void append_places(writer *to, const zq_details *details)
{
	for (unsigned i = 0; i < details->place_count; i++) {
		const zq_place *place = &details->places[i];
		const char *vendor = place->vendor ? place->vendor : "", *file = place->file ? place->file : "";
		uint32_t line = place->line;
		size_t vendor_len = strnlen(vendor, MOST_VENDOR);
		char head[sizeof(line) + 1 + MOST_VENDOR];
		memcpy(head, &line, sizeof(line));
		head[sizeof(line)] = (char)vendor_len;
		memcpy(head + sizeof(line) + 1, vendor, vendor_len);
		append_item(to, ZQ_ITEM_PLACE, head, sizeof(line) + 1 + vendor_len, file, strnlen(file, MOST_TEXT));
		if (place->caller) {
			line = place->caller_line;
			append_item(to, ZQ_ITEM_CALLER, &line, sizeof(line), place->caller, strnlen(place->caller, MOST_TEXT));
		}
	}
}

/* As many statement records, one after the other, and the number of the place that ran them. */
struct run {
	uint16_t count, place;
};
static_assert(sizeof(run) == 4, "as it goes into the packet");

/* The places of the packet's statements, in their order. */
struct runs {
	smart_str list; /* of `run` */
	uint64 statements;
};

/* Adds statements of one place, as several runs when they are too many for one. */
void append_run(smart_str *list, uint64 count, uint16_t place)
{
	const size_t most = MOST_BYTES / 4; /* of many thousand statements the first */
	while (count && list->len < most) {
		run next = {(uint16_t)(count < UINT16_MAX ? count : UINT16_MAX), place};
		zq_append(list, (const char *)&next, sizeof(next));
		count -= next.count;
	}
}

/* The list is request memory. */
runs runs_of(const zend_llist *statements)
{
	runs found = {};
	uint64 count = 0;
	uint16_t place = ZQ_NO_PLACE;
	for (const zend_llist_element *at = statements ? statements->head : NULL; at; at = at->next) {
		const sql_element *sql = (const sql_element *)at->data;
		if (sql->place != place) {
			append_run(&found.list, count, place);
			found.statements += count;
			count = 0;
			place = sql->place;
		}
		count += (uint64)sql->repeats + 1;
	}
	append_run(&found.list, count, place);
	found.statements += count;
	return found;
}

void append_cut_text(writer *to, int type, const char *text)
{
	if (text && !zq_json_keeps(text, strlen(text))) {
		append_text(to, type, text);
	}
}

/* The messages of failed outgoing calls, which have a record each. */
void append_call_messages(writer *to TSRMLS_DC)
{
	uint32_t number = 0;
	for (const zend_llist_element *at = ZQG(webservices) ? ZQG(webservices)->head : NULL; at; at = at->next) {
		const webservice_element *service = (const webservice_element *)at->data;
		const char *message = service->stack ? service->error_msg : NULL;
		if (message && !zq_json_keeps(message, strlen(message))) {
			append_item(to, ZQ_ITEM_CALL_MESSAGE, &number, sizeof(number), message, strnlen(message, MOST_TEXT));
		}
		number += service->stack != NULL;
	}
}

/* Of one more of the packet's stacks, `number` of which came before it. */
void append_frames(writer *to, uint32_t *number, const char *stack)
{
	if (!stack) {
		return;
	}
	for (const char *at = stack + strlen(stack) + 1; *at; at += strlen(at) + 1) {
		char head[sizeof(*number) + 1];
		memcpy(head, number, sizeof(*number));
		head[sizeof(*number)] = (char)(*at - 1);
		append_item(to, ZQ_ITEM_FRAME, head, sizeof(head), at + 1, strlen(at + 1));
	}
	++*number;
}

/* Frames of the stacks that the packet has beside its trace's, in its order. */
void append_whole_frames(writer *to TSRMLS_DC)
{
	uint32_t number = 0;
	const bool has_those_of_statements = ZQG(action_tracer_record_sql) != 0;
	for (const zend_llist_element *at = ZQG(sqls) ? ZQG(sqls)->head : NULL; has_those_of_statements && at;
		 at = at->next) {
		append_frames(to, &number, ((const sql_element *)at->data)->stack);
	}
	append_frames(to, &number, ZQG(error) ? ZQG(error)->stack : NULL);
	for (const zend_llist_element *at = ZQG(webservices) ? ZQG(webservices)->head : NULL; at; at = at->next) {
		append_frames(to, &number, ((const webservice_element *)at->data)->stack);
	}
}

/* What the other records have only up to its first byte that is not UTF-8. */
void append_whole_texts(writer *to, const zq_details *details TSRMLS_DC)
{
	if (const error_element *error = ZQG(error)) {
		append_cut_text(to, ZQ_ITEM_ERROR_CLASS, error->cls);
		append_cut_text(to, ZQ_ITEM_ERROR_MESSAGE, error->msg);
	}
	for (const zq_whole_text *text = details->texts; text; text = text->next) {
		char head[5] = {(char)text->number, (char)(text->number >> 8), (char)(text->number >> 16),
			(char)(text->number >> 24), (char)text->field};
		size_t head_len = text->field ? 5 : 4;
		append_item(to, text->field ? ZQ_ITEM_TRACE_TEXT : ZQ_ITEM_COMPONENT, head, head_len, text->text, text->len);
	}
}

/* Without a transaction, and without a caller that lends its trace, there is nothing to say. */
void append_trace_context(writer *to, zq_trace_context *context TSRMLS_DC)
{
	const unsigned char *trace_id = zq_trace_id(context TSRMLS_CC);
	if (!trace_id) {
		return;
	}
	unsigned char ids[ZQ_TRACE_ID_SIZE + 2 * ZQ_SPAN_ID_SIZE];
	memcpy(ids, trace_id, ZQ_TRACE_ID_SIZE);
	memcpy(ids + ZQ_TRACE_ID_SIZE, context->own.span_id, ZQ_SPAN_ID_SIZE);
	memcpy(ids + ZQ_TRACE_ID_SIZE + ZQ_SPAN_ID_SIZE, context->parent, ZQ_SPAN_ID_SIZE);
	append_item(to, ZQ_ITEM_TRACE_CONTEXT, ids, sizeof(ids), "", 0);
}

/* As it goes into the packet. */
struct call_span {
	uint64 span;
	uint32_t number, node;
	uint64 since_start_us, took_us;
};
static_assert(sizeof(call_span) == 32);

void append_call_spans(writer *to, const zq_trace_context *context TSRMLS_DC)
{
	for (unsigned i = 0; i < context->call_count; i++) {
		const zq_call_span *call = &context->calls[i];
		uint64 since_start = call->begin_us > ZQG(rinit_tick) ? call->begin_us - ZQG(rinit_tick) : 0;
		const call_span item = {call->span, call->number, call->node, since_start, call->took_us};
		append_item(to, ZQ_ITEM_CALL_SPAN, &item, sizeof(item), "", 0);
	}
}

} // namespace

void zq_append_details(smart_str *packet TSRMLS_DC)
{
	const zq_details *details = ZQG(details);
	if (!details) {
		return;
	}
	size_t start = packet->len;
	writer to = {packet, start + 4 + MOST_BYTES};
	zq_append_header(packet, ZQ_RE_DETAILS, 0);
	runs found = runs_of(ZQG(sqls));
	append_sums(&to, details, found.statements + details->unlisted_statements TSRMLS_CC);
	append_request(&to TSRMLS_CC);
	if (details->context) {
		append_trace_context(&to, details->context TSRMLS_CC);
	}
	if (found.list.len) {
		append_item(&to, ZQ_ITEM_RUNS, NULL, 0, found.list.c, found.list.len);
	}
	zq_buffer_free(&found.list);
	append_places(&to, details);
	append_whole_texts(&to, details TSRMLS_CC);
	append_call_messages(&to TSRMLS_CC);
	append_whole_frames(&to TSRMLS_CC);
	if (details->context) {
		append_call_spans(&to, details->context TSRMLS_CC);
	}
	zq_fill_length(packet, start);
	if (packet->len - 4 >= ZQ_MAX_BODY) {
		packet->len = start; /* better a packet without it than none */
	}
}
