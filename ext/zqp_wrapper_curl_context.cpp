/* The trace context of curl handles: a new span for each transfer of one. */
#include "zqp_trace_context.h"
#include "zqp_wrapper_headers.h"

namespace {

/* curl's numbers, so that the agent need not be linked with it. */
enum { CURLOPT_HTTPHEADER = 10023, CURLINFO_EFFECTIVE_URL = 1048577 };

/* What a worker's endless action may keep. */
enum { MAX_KNOWN_HANDLES = 10000 };

void forget_list(void *list)
{
	zval_ptr_dtor(&((zq_curl_list *)list)->headers);
}

/* Null: the handle is not known, or nobody asks for trace context. */
zq_curl_list *list_of(const zval *handle TSRMLS_DC)
{
	zq_trace_context *context = zq_trace_context_of(TSRMLS_C);
	zq_curl_list *list;
	bool found = context && context->curl_lists && handle && Z_TYPE_P(handle) == IS_RESOURCE &&
		zend_hash_index_find(context->curl_lists, (ulong)Z_LVAL_P(handle), (void **)&list) == SUCCESS;
	return found ? list : NULL;
}

/* A list of its own with the same lines: the script may change those that it refers to. */
zval *copy_lines(HashTable *lines, bool *forbids)
{
	zval *copy;
	MAKE_STD_ZVAL(copy);
	array_init(copy);
	*forbids = false;
	for (Bucket *at = lines->pListHead; at; at = at->pListNext) {
		const zval *line = *(zval **)at->pData;
		if (Z_TYPE_P(line) == IS_STRING) {
			*forbids = *forbids || zq_line_forbids_traceparent({Z_STRVAL_P(line), (size_t)Z_STRLEN_P(line)});
			add_next_index_stringl(copy, Z_STRVAL_P(line), (uint)Z_STRLEN_P(line), 1);
		}
	}
	return copy;
}

/* Sets the list again, with that span's context; 0: without any. */
void set_list(zval *handle, zq_curl_list *list, uint64 span TSRMLS_DC)
{
	bool forbids;
	zval *headers = copy_lines(Z_ARRVAL_P(list->headers), &forbids);
	if (span) {
		smart_str line = {};
		zq_append_text(&line, "traceparent: ");
		zq_append_traceparent(&line, zq_trace_context_of(TSRMLS_C), span TSRMLS_CC);
		int len = (int)line.len;
		add_next_index_stringl(headers, zq_buffer_text(&line), (uint)len, 0);
	}
	list->span = span;
	zq_set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
}

bool url_takes_traceparent(zval *handle TSRMLS_DC)
{
	zval *what, url;
	MAKE_STD_ZVAL(what);
	ZVAL_LONG(what, CURLINFO_EFFECTIVE_URL);
	zval *params[] = {handle, what};
	zq_call_named(NULL, "curl_getinfo", &url, 2, params TSRMLS_CC);
	bool takes = Z_TYPE(url) == IS_STRING && zq_url_takes_traceparent(Z_STRVAL(url) TSRMLS_CC);
	zq_release_result(&url TSRMLS_CC);
	zval_ptr_dtor(&what);
	return takes;
}

} // namespace

void zq_set_curl_option(zval *handle, long option, zval *value TSRMLS_DC)
{
	zval *number, result;
	MAKE_STD_ZVAL(number);
	ZVAL_LONG(number, option);
	zval *params[] = {handle, number, value};
	zq_call_named(NULL, "curl_setopt", &result, 3, params TSRMLS_CC);
	zq_release_result(&result TSRMLS_CC);
	zval_ptr_dtor(&value);
	zval_ptr_dtor(&number);
}

void zq_curl_url_is_new(const zval *handle TSRMLS_DC)
{
	if (zq_curl_list *list = list_of(handle TSRMLS_CC)) {
		list->withheld = false;
	}
}

void zq_keep_curl_list(const zval *handle, const zval *headers TSRMLS_DC)
{
	zq_trace_context *context = zq_trace_context_of(TSRMLS_C);
	if (!context) {
		return;
	}
	if (!context->curl_lists) {
		context->curl_lists = (HashTable *)emalloc(sizeof(HashTable));
		zend_hash_init(context->curl_lists, 8, NULL, forget_list, 0);
	}
	if (zend_hash_num_elements(context->curl_lists) >= MAX_KNOWN_HANDLES) {
		zend_hash_clean(context->curl_lists);
	}
	const zq_curl_list *before = list_of(handle TSRMLS_CC);
	zq_curl_list list = {};
	list.withheld = before && before->withheld;
	list.headers = copy_lines(Z_ARRVAL_P(headers), &list.forbids);
	zend_hash_index_update(context->curl_lists, (ulong)Z_LVAL_P(handle), &list, sizeof(list), NULL);
}

void zq_leave_curl_list(zval *handle TSRMLS_DC)
{
	zq_curl_list *list = list_of(handle TSRMLS_CC);
	if (list && !list->left) {
		if (list->span) {
			set_list(handle, list, 0 TSRMLS_CC);
		}
		list->left = true;
	}
}

void zq_send_traceparent(zval *handle, bool is_recorded TSRMLS_DC)
{
	zq_curl_list *list = list_of(handle TSRMLS_CC);
	if (!list || list->left) {
		return;
	}
	zq_trace_context *context = zq_trace_context_of(TSRMLS_C);
	list->withheld = list->withheld || !url_takes_traceparent(handle TSRMLS_CC);
	if (!list->withheld && !list->forbids && zq_trace_id(context TSRMLS_CC)) {
		set_list(handle, list, is_recorded ? zq_new_span(context) : zq_own_span(context) TSRMLS_CC);
	} else if (list->span) {
		set_list(handle, list, 0 TSRMLS_CC);
	}
}

void zq_curl_list_is_as_before(const zval *handle TSRMLS_DC)
{
	if (zq_curl_list *list = list_of(handle TSRMLS_CC)) {
		list->left = false;
	}
}

void zq_forget_curl_list(const zval *handle TSRMLS_DC)
{
	if (list_of(handle TSRMLS_CC)) {
		zend_hash_index_del(zq_trace_context_of(TSRMLS_C)->curl_lists, (ulong)Z_LVAL_P(handle));
	}
}

uint64 zq_curl_span(const zval *handle TSRMLS_DC)
{
	const zq_curl_list *list = list_of(handle TSRMLS_CC);
	return list && !list->left ? list->span : 0;
}
