/* curl: how handles come to carry the caller's identity and trace context, and to hand back the callee's answer. */
#include "zqp_trace_context.h"
#include "zqp_wrapper_headers.h"

namespace {

constexpr char HEADER_CALLBACK[] = "zqprof_curl_header";

/* curl's numbers, so that the agent need not be linked with it. */
enum { CURLOPT_URL = 10002, CURLOPT_HTTPHEADER = 10023, CURLOPT_WRITEHEADER = 10029, CURLOPT_HEADERFUNCTION = 20079 };
enum { CURLINFO_EFFECTIVE_URL = 1048577 };

/* What a worker's endless action may keep. */
enum { MAX_KNOWN_HANDLES = 10000 };

/* curl_setopt(handle, option, value), unseen by the script; gives `value` away. */
void set_curl_option(zval *handle, long option, zval *value TSRMLS_DC)
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

/* What is known of a handle, as long as the request: PHP keeps one list of headers for a handle and its copies, and
 * frees it when one of them gets another, while the others go on using it. */
struct zq_curl_handle {
	bool own_callback; /* it has our header callback and none of the script's */
	bool own_list;     /* its list of headers is ours, unless a script has done what nobody saw */
	ulong family;      /* resource id of the handle that it and others were copied from; 0: there are no copies */
};

zq_curl_handle *find_handle(const zval *handle TSRMLS_DC)
{
	zq_curl_handle *found;
	HashTable *handles = ZQG(curl_handles);
	bool is_known = handles && handle && Z_TYPE_P(handle) == IS_RESOURCE &&
		zend_hash_index_find(handles, (ulong)Z_LVAL_P(handle), (void **)&found) == SUCCESS;
	return is_known ? found : NULL;
}

int is_gone(void *TSRMLS_DC, int, va_list, zend_hash_key *key)
{
	return zend_hash_index_exists(&EG(regular_list), key->h) ? ZEND_HASH_APPLY_KEEP : ZEND_HASH_APPLY_REMOVE;
}

/* Null when there are too many. */
zq_curl_handle *know_handle(const zval *handle TSRMLS_DC)
{
	zq_curl_handle *known = find_handle(handle TSRMLS_CC), fresh = {};
	if (known) {
		return known;
	}
	if (!ZQG(curl_handles)) {
		ZQG(curl_handles) = (HashTable *)emalloc(sizeof(HashTable));
		zend_hash_init(ZQG(curl_handles), 8, NULL, NULL, 0);
	}
	HashTable *handles = ZQG(curl_handles);
	if (zend_hash_num_elements(handles) >= MAX_KNOWN_HANDLES) {
		zend_hash_apply_with_arguments(handles TSRMLS_CC, is_gone, 0);
	}
	if (zend_hash_num_elements(handles) >= MAX_KNOWN_HANDLES) {
		return NULL;
	}
	zend_hash_index_update(handles, (ulong)Z_LVAL_P(handle), &fresh, sizeof(fresh), (void **)&known);
	return known;
}

/* 1 when the handle had our callback alone until now. */
int forget_own_callback(const zval *handle TSRMLS_DC)
{
	zq_curl_handle *known = find_handle(handle TSRMLS_CC);
	int had = known && known->own_callback;
	if (had) {
		known->own_callback = false;
	}
	return had;
}

/* Before the script gives one of these handles a list: those that have ours would go on using it when it is gone.
 * Without the agent they have none. */
void take_lists_off(const zval *handle TSRMLS_DC)
{
	const zq_curl_handle *one = find_handle(handle TSRMLS_CC);
	ulong family = one ? one->family : 0;
	for (Bucket *at = family ? ZQG(curl_handles)->pListHead : NULL; at; at = at->pListNext) {
		zq_curl_handle *other = (zq_curl_handle *)at->pData;
		int type;
		if (other->family != family || !other->own_list) {
			continue;
		}
		other->own_list = false;
		if (zend_list_find((int)at->h, &type)) {
			zval *resource, *none;
			MAKE_STD_ZVAL(resource);
			ZVAL_RESOURCE(resource, (long)at->h);
			zend_list_addref((int)at->h);
			MAKE_STD_ZVAL(none);
			array_init(none);
			set_curl_option(resource, CURLOPT_HTTPHEADER, none TSRMLS_CC);
			zval_ptr_dtor(&resource);
		}
	}
}

/* ---- trace context: a new span for each transfer of a handle ---- */

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

void url_is_new(const zval *handle TSRMLS_DC)
{
	if (zq_curl_list *list = list_of(handle TSRMLS_CC)) {
		list->withheld = false;
	}
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

/* The handle has this list from now on, our identity in it. */
void keep_list(const zval *handle, const zval *headers TSRMLS_DC)
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
	set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
}

/* As it is without trace context, and it stays so. */
void leave_list(zval *handle TSRMLS_DC)
{
	zq_curl_list *list = list_of(handle TSRMLS_CC);
	if (list && !list->left) {
		if (list->span) {
			set_list(handle, list, 0 TSRMLS_CC);
		}
		list->left = true;
	}
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

/* Before a transfer that is recorded on its own, or else belongs to the action's own span. */
void send_traceparent(zval *handle, bool is_recorded TSRMLS_DC)
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

/* ---- the identity ---- */

void identify_curl_handle(zval *handle TSRMLS_DC)
{
	if (!handle || Z_TYPE_P(handle) != IS_RESOURCE) {
		return;
	}
	zq_curl_handle *known = know_handle(handle TSRMLS_CC);
	if (!known) {
		return;
	}
	if (!known->family) {
		zval *headers;
		MAKE_STD_ZVAL(headers);
		array_init(headers);
		add_next_index_zval(headers, zq_identity_header(0 TSRMLS_CC));
		keep_list(handle, headers TSRMLS_CC);
		set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
		known->own_list = true;
	}
	if (zq_callback_works(HEADER_CALLBACK TSRMLS_CC)) { /* curl aborts a transfer whose callback does not answer */
		zval *callback;
		MAKE_STD_ZVAL(callback);
		ZVAL_STRING(callback, HEADER_CALLBACK, 1);
		set_curl_option(handle, CURLOPT_HEADERFUNCTION, callback TSRMLS_CC);
		known->own_callback = true;
	}
}

long option_of(zq_stack_data *call)
{
	return get_argument_long(call->execute_data, 1);
}

} // namespace

void curl_header_handler(const char *header, size_t len TSRMLS_DC)
{
	if (len < ZQ_SHORTEST_ANSWER || strncmp(header, ZQ_ANSWER_HEADER, ZQ_ANSWER_HEADER_LEN) != 0) {
		return;
	}
	char *answer = estrndup(header + ZQ_ANSWER_HEADER_LEN, (uint)(len - ZQ_ANSWER_HEADER_LEN));
	zq_str_replace_ln(answer);
	zq_replace_text(&ZQG(transaction_curl_response_data), answer);
}

int wrapper_curl_header_handler(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	const zval *line = get_argument_zval(execute_data, 1);
	if (line && Z_TYPE_P(line) == IS_STRING) {
		curl_header_handler(Z_STRVAL_P(line), (size_t)Z_STRLEN_P(line) TSRMLS_CC);
	}
	return 0;
}

void wrapper_curl_setopt(zq_stack_data *call TSRMLS_DC)
{
	long option = option_of(call);
	if (!option || option == CURLOPT_HEADERFUNCTION ||
		option == CURLOPT_WRITEHEADER) { /* 0: curl makes a number of it */
		forget_own_callback(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
	}
	if (!option || option == CURLOPT_HTTPHEADER) {
		take_lists_off(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
		leave_list(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
	} else if (option == CURLOPT_URL) {
		url_is_new(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
	}
	if (option != CURLOPT_HEADERFUNCTION || ZQG(webservice_should_ignored)) {
		return;
	}
	zq_watch_callback(call->execute_data, 2, wrapper_curl_header_handler TSRMLS_CC);
}

void wrapper_curl_setopt_array(zq_stack_data *call TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 0);
	const zval *options = get_argument_zval(call->execute_data, 1);
	if (!options || Z_TYPE_P(options) != IS_ARRAY) {
		return;
	}
	HashTable *set = Z_ARRVAL_P(options);
	if (zend_hash_index_exists(set, CURLOPT_HEADERFUNCTION) || zend_hash_index_exists(set, CURLOPT_WRITEHEADER)) {
		forget_own_callback(handle TSRMLS_CC);
	}
	if (zend_hash_index_exists(set, CURLOPT_URL)) {
		url_is_new(handle TSRMLS_CC);
	}
	if (zend_hash_index_exists(set, CURLOPT_HTTPHEADER)) {
		take_lists_off(handle TSRMLS_CC);
		leave_list(handle TSRMLS_CC);
	}
}

/* Original and copy have one list, which is left as it is from then on, without trace context. */
void wrapper_curl_copy_handle(zq_stack_data *call TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 0);
	leave_list(handle TSRMLS_CC);
	if (list_of(handle TSRMLS_CC)) {
		zend_hash_index_del(zq_trace_context_of(TSRMLS_C)->curl_lists, (ulong)Z_LVAL_P(handle));
	}
}

int performance_curl_copy_handle(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	const zval *handle = get_argument_zval(call->execute_data, 0);
	const zval *copy = call->return_slot ? *call->return_slot : NULL;
	if (!handle || Z_TYPE_P(handle) != IS_RESOURCE || !copy || Z_TYPE_P(copy) != IS_RESOURCE) {
		return 0;
	}
	zq_curl_handle *original = know_handle(handle TSRMLS_CC);
	if (original) {
		original->family = original->family ? original->family : (ulong)Z_LVAL_P(handle);
		const zq_curl_handle of_copy = {false, original->own_list, original->family};
		if (zq_curl_handle *known = know_handle(copy TSRMLS_CC)) {
			*known = of_copy;
		}
	}
	return 0;
}

uint64 zq_curl_span(const zval *handle TSRMLS_DC)
{
	const zq_curl_list *list = list_of(handle TSRMLS_CC);
	return list && !list->left ? list->span : 0;
}

/* While an exception of one transfer's callback waits, curl cannot call ours, and would end the other transfers for
 * that. Answers to transfers in parallel cannot be told apart anyway. */
void wrapper_curl_multi_add_handle(zq_stack_data *call TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 1);
	if (forget_own_callback(handle TSRMLS_CC)) {
		zval *none;
		ALLOC_INIT_ZVAL(none);
		set_curl_option(handle, CURLOPT_WRITEHEADER, none TSRMLS_CC);
	}
	send_traceparent(handle, false TSRMLS_CC); /* no transfer of many is recorded on its own */
}

/* curl itself walks the script's array to its end and turns its elements into strings, and the script can see both. So
 * the call is left to do that to the array that it was given, and a longer list replaces it afterwards. */
int performance_curl_setopt(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 0);
	zval *given = get_argument_zval(call->execute_data, 2);
	const zval *done = call->return_slot ? *call->return_slot : NULL;
	zq_curl_list *list = list_of(handle TSRMLS_CC);
	if (list && option_of(call) == CURLOPT_HTTPHEADER && done && !zend_is_true((zval *)done)) {
		list->left = false; /* nothing has changed */
	}
	if (option_of(call) != CURLOPT_HTTPHEADER || !given || Z_TYPE_P(given) != IS_ARRAY || !handle || !done ||
		!zend_is_true((zval *)done)) {
		return 0;
	}
	zval *headers;
	MAKE_STD_ZVAL(headers);
	array_init(headers);
	for (Bucket *at = Z_ARRVAL_P(given)->pListHead; at; at = at->pListNext) {
		zval *line = *(zval **)at->pData;
		Z_ADDREF_P(line);
		add_next_index_zval(headers, line);
	}
	add_next_index_zval(headers, zq_identity_header(0 TSRMLS_CC));
	if (zq_curl_handle *known = find_handle(handle TSRMLS_CC)) {
		known->own_list = false;
	}
	keep_list(handle, headers TSRMLS_CC);
	set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
	return 0;
}

int performance_curl_init(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	identify_curl_handle(call->return_slot ? *call->return_slot : NULL TSRMLS_CC);
	return 0;
}

int performance_curl_reset(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	identify_curl_handle(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
	return 0;
}

void zq_drop_curl_answer(TSRMLS_D)
{
	zq_replace_text(&ZQG(transaction_curl_response_data), NULL);
}

void wrapper_curl_exec(zq_stack_data *call TSRMLS_DC)
{
	zq_drop_curl_answer(TSRMLS_C);
	send_traceparent(get_argument_zval(call->execute_data, 0), !ZQG(webservice_should_ignored) TSRMLS_CC);
}
