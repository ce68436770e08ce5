/* The trace as JSON: the calls, sorted by start, become a tree by their time spans, and the tree nested arrays. Both
 * steps are linear in the number of calls and take no stack however deep the calls were nested. */
#include "zqp_tracer.h"

#include <cJSON.h>
#include <cmath>

extern "C" {
#include "ext/standard/html.h"
}
#include "zqp_json.h"
#include "zqp_lock.h"
#include "zqp_trace_context.h"
#include "zqp_webservice.h"

/* ---- text of others that goes into the JSON as it is ---- */

static bool is_utf8(const char *text)
{
	size_t len = strlen(text), at = 0;
	int status = SUCCESS;
	while (at < len && status == SUCCESS) {
		php_next_utf8_char((const unsigned char *)text, len, &at, &status);
	}
	return status == SUCCESS;
}

/* Length of the escape sequence at `at`, a backslash; 0 when it is none. */
static size_t escape_len(const char *at)
{
	if (at[1] == 'u') {
		return strspn(at + 2, "0123456789abcdefABCDEF") >= 4 ? 6 : 0;
	}
	return at[1] && strchr("\"\\/bfnrt", at[1]) ? 2 : 0;
}

/* Behind the string body that starts at `at`: at its closing quote, the end, or the byte that JSON does not allow. */
static const char *skip_string_body(const char *at)
{
	while (*at && *at != '"') {
		size_t len = *at == '\\' ? escape_len(at) : (unsigned char)*at >= 0x20;
		if (len == 0) {
			return at;
		}
		at += len;
	}
	return at;
}

static bool is_json_string_body(const char *text)
{
	return *skip_string_body(text) == '\0' && is_utf8(text);
}

static size_t count_digits(const char *at)
{
	return strspn(at, "0123456789");
}

/* Behind the number at `at`; `at` itself when JSON does not allow it ("01", "1.", "-"). */
static const char *skip_number(const char *at)
{
	const char *start = at;
	at += *at == '-';
	size_t digits = count_digits(at);
	if (digits == 0 || (digits > 1 && *at == '0')) {
		return start;
	}
	at += digits;
	if (*at == '.') {
		digits = count_digits(at + 1);
		if (digits == 0) {
			return start;
		}
		at += 1 + digits;
	}
	return at;
}

/* The parser lets some numbers and raw control characters pass that no reader of the trace has to accept. */
static bool is_strict_json(const char *text)
{
	for (const char *at = text; *at;) {
		if (*at == '"') {
			at = skip_string_body(at + 1);
			if (*at++ != '"') {
				return false;
			}
		} else if (*at == '-' || (*at >= '0' && *at <= '9')) {
			const char *after = skip_number(at);
			if (after == at || !std::isfinite(zend_strtod(at, NULL))) {
				return false;
			}
			at = after + strspn(after, "eE+-0123456789"); /* the parser has checked the exponent's form */
		} else if (isSpace(*at) && !strchr(" \t\r\n", *at)) {
			return false;
		} else {
			at++;
		}
	}
	return is_utf8(text);
}

/* 1 when `text` is exactly one JSON object: a lying callee must not break the trace that quotes it. */
static bool is_json_object(const char *text)
{
	sigset_t saved;
	zq_hold_timers(&saved); /* the parser uses libc's heap */
	cJSON *root = cJSON_ParseWithOpts(text, NULL, 1);
	int parsed = root != NULL;
	cJSON_Delete(root);
	zq_allow_timers(&saved);
	return parsed && text[strspn(text, " \t\r\n")] == '{' && is_strict_json(text);
}

/* ---- tree ---- */

static void mark_key_path(tracer_tree_node *node)
{
	for (; node && !node->is_key_path; node = node->parent) {
		node->is_key_path = 1;
	}
}

/* Hangs the node below the innermost call that was still running when it started; nowhere when there is none, and it is
 * never written then. `previous` is the node placed before it. */
static void place_node(tracer_tree_node *node, tracer_tree_node *previous)
{
	tracer_tree_node *parent = previous;
	while (parent && parent->tracer->end <= node->tracer->start) {
		parent = parent->parent;
	}
	if (!parent) {
		return;
	}
	node->parent = parent;
	node->level = parent->level + 1;
	if (parent->last_child) {
		parent->last_child->sibling = node;
	} else {
		parent->child = node;
	}
	parent->last_child = node;
}

void tracer_list_to_json(int duration_ms, zend_llist *tracer_list, smart_str *msg TSRMLS_DC)
{
	char cls[] = "PHP", func[] = "execute";
	tracer_element whole = {};
	whole.cls = cls;
	whole.func = func;
	whole.start = ZQG(rinit_tick);
	whole.end = ZQG(rdown_tick);

	size_t count = tracer_list ? zend_llist_count(tracer_list) : 0;
	tracer_tree_node *root = (tracer_tree_node *)ecalloc(count + 1, sizeof(tracer_tree_node));
	root->tracer = &whole;
	root->is_key_path = 1;

	tracer_tree_node *node = root;
	for (zend_llist_element *at = tracer_list ? tracer_list->head : NULL; at; at = at->next, node++) {
		node[1].tracer = (tracer_element *)at->data;
		place_node(node + 1, node);
		if (node[1].tracer->data) {
			mark_key_path(node + 1);
		}
	}
	output_tracer_tree(msg, root, count > 100 ? duration_ms / 100 : 0, 1 TSRMLS_CC);
	zq_buffer_text(msg);
	efree(root);
}

/* ---- output ---- */

static void append_escaped(smart_str *msg, const char *text)
{
	if (text) {
		json_escape_string(msg, text, strlen(text), 0);
	}
}

/* Milliseconds since the request started, negative for what began before. */
static void append_since_start(smart_str *msg, uint64 stamp TSRMLS_DC)
{
	zq_append_long(msg, (long)(stamp - ZQG(rinit_tick)) / 1000);
}

/* Metric name and URI, as two strings. */
static void append_target(smart_str *msg, const tracer_element *tracer)
{
	zq_append(msg, ",\"", 2);
	if (tracer->data && tracer->data_type == ZQ_TRACER_SQL) {
		char *name = metric_name_from_sql((const sql_element *)tracer->data);
		append_escaped(msg, name);
		efree(name);
	}
	const webservice_element *service =
		tracer->data_type == ZQ_TRACER_EXTERNAL ? (const webservice_element *)tracer->data : NULL;
	if (service) {
		zq_append_text(msg, "External/");
		if (is_json_string_body(service->name)) {
			zq_append_text(msg, service->name);
		} else {
			append_escaped(msg, service->name);
		}
	}
	zq_append(msg, "\",\"", 3);
	append_escaped(msg, service ? service->url : NULL);
}

static bool keeps(const char *text)
{
	return !text || zq_json_keeps(text, strlen(text));
}

/* Keeps a text that the node being written has only in part. */
static void keep_cut_text(zq_details *details, int field, const char *text)
{
	if (!keeps(text)) {
		zq_details_keep_text(details, details->trace_nodes, field, text, strlen(text));
	}
}

static void append_statement_text(smart_str *msg, const char *text TSRMLS_DC)
{
	json_escape_string(msg, text, strlen(text), 1);
	if (ZQG(details)) {
		keep_cut_text(ZQG(details), ZQ_WHOLE_STATEMENT, text);
	}
}

static void keep_whole_frames(const char *stack TSRMLS_DC)
{
	zq_details *details = ZQG(details);
	for (const char *at = stack + strlen(stack) + 1; details && *at; at += strlen(at) + 1) {
		int field = ZQ_WHOLE_FRAME + (unsigned char)*at - 1;
		zq_details_keep_text(details, details->trace_nodes, field, at + 1, strlen(at + 1));
	}
}

static void append_statement(smart_str *msg, const sql_element *sql TSRMLS_DC)
{
	zq_append_text(msg, "\"sql\":");
	if (ZQG(action_tracer_record_sql) == 2) {
		char *masked = estrdup(sql->statement);
		zq_obfuscate_sql(masked);
		append_statement_text(msg, masked TSRMLS_CC);
		efree(masked);
	} else {
		append_statement_text(msg, sql->statement TSRMLS_CC);
	}
	if (sql->stack) {
		zq_append_text(msg, ",\"stacktrace\":");
		zq_append_text(msg, sql->stack);
		keep_whole_frames(sql->stack TSRMLS_CC);
	}
	if (sql->explain) {
		zq_append_text(msg, ",\"explainPlan\":");
		zq_append_text(msg, sql->explain);
	}
}

static void append_caller(smart_str *msg, const tracer_element *tracer)
{
	zq_append_text(msg, "\"partialtrace\":[\"");
	if (tracer->cls) {
		append_escaped(msg, tracer->cls);
		zq_append_char(msg, '.');
	}
	append_escaped(msg, tracer->func);
	zq_append_char(msg, '(');
	append_escaped(msg, tracer->filename);
	zq_append_char(msg, ':');
	zq_append_long(msg, tracer->lineno);
	zq_append_text(msg, ")\"]");
}

static void keep_cut_caller(zq_details *details, const tracer_element *tracer)
{
	if (keeps(tracer->cls) && keeps(tracer->func) && keeps(tracer->filename)) {
		return;
	}
	char *whole;
	int len = spprintf(&whole, 0, "%s%s%s(%s:%d)", tracer->cls ? tracer->cls : "", tracer->cls ? "." : "", tracer->func,
		tracer->filename, tracer->lineno);
	zq_details_keep_text(details, details->trace_nodes, ZQ_WHOLE_FRAME, whole, (size_t)len);
	efree(whole);
}

static void append_callee_data(smart_str *msg, const char *data TSRMLS_DC)
{
	zq_append_text(msg, "\"txId\":\"");
	append_escaped(msg, ZQG(transaction_id));
	zq_append_char(msg, '"');
	if (is_json_object(data)) {
		zq_append_text(msg, ",\"txData\":");
		zq_append_text(msg, data);
	}
}

static void append_params(smart_str *msg, const tracer_element *tracer TSRMLS_DC)
{
	size_t empty = msg->len;
	if (tracer->data && tracer->data_type == ZQ_TRACER_SQL && ZQG(action_tracer_record_sql)) {
		append_statement(msg, (const sql_element *)tracer->data TSRMLS_CC);
	} else if (tracer->filename) {
		append_caller(msg, tracer);
		if (ZQG(details)) {
			keep_cut_caller(ZQG(details), tracer);
		}
	}
	if (tracer->data && tracer->data_type == ZQ_TRACER_EXTERNAL) {
		const char *data = ((const webservice_element *)tracer->data)->transaction_data;
		if (data) {
			if (msg->len != empty) {
				zq_append_char(msg, ',');
			}
			append_callee_data(msg, data TSRMLS_CC);
		}
	}
}

/* The names that the node just written has only in part. */
static void keep_cut_names(zq_details *details, const tracer_element *tracer)
{
	keep_cut_text(details, ZQ_WHOLE_CLASS, tracer->cls);
	keep_cut_text(details, ZQ_WHOLE_FUNCTION, tracer->func);
	if (details->context && tracer->data_type == ZQ_TRACER_EXTERNAL) {
		zq_note_call_node(details->context, tracer->data, details->trace_nodes);
	}
	details->trace_nodes++;
}

/* Everything of a node in front of its children. */
static void open_node(smart_str *msg, const tracer_element *tracer, int is_first_node TSRMLS_DC)
{
	zq_append_text(msg, is_first_node ? "[" : ",[");
	append_since_start(msg, tracer->start TSRMLS_CC);
	zq_append_char(msg, ',');
	append_since_start(msg, tracer->end TSRMLS_CC);
	append_target(msg, tracer);
	zq_append_text(msg, "\",1,\"");
	append_escaped(msg, tracer->cls);
	zq_append_text(msg, "\",\"");
	append_escaped(msg, tracer->func);
	zq_append_text(msg, "\",{");
	append_params(msg, tracer TSRMLS_CC);
	zq_append_text(msg, "},[");
	if (ZQG(details)) {
		keep_cut_names(ZQG(details), tracer);
	}
}

/* A quick call deep down that leads to no query or outgoing call is left out with all below it. */
static bool is_pruned(const tracer_tree_node *node, int threshold)
{
	return !node->is_key_path && node->level > 3 &&
		(int64_t)threshold >= (int64_t)((node->tracer->end - node->tracer->start) / 1000);
}

int output_tracer_tree(smart_str *msg, tracer_tree_node *node, int threshold, int is_first_node TSRMLS_DC)
{
	if (is_pruned(node, threshold)) {
		return 0;
	}
	tracer_tree_node *at = node;
	int is_first = is_first_node;
	for (;;) {
		if (!is_pruned(at, threshold)) {
			open_node(msg, at->tracer, is_first TSRMLS_CC);
			is_first = 1;
			if (at->child) {
				at = at->child;
				continue;
			}
			zq_append(msg, "]]", 2);
			is_first = 0;
		}
		while (at != node && !at->sibling) {
			at = at->parent;
			zq_append(msg, "]]", 2);
			is_first = 0;
		}
		if (at == node) {
			return 1;
		}
		at = at->sibling;
	}
}
