/* curl: how handles come to carry the caller's identity, and to hand back the callee's answer. */
#include "zqp_wrapper_headers.h"

namespace {

constexpr char HEADER_CALLBACK[] = "zqprof_curl_header";

/* curl's numbers, so that the agent need not be linked with it. */
enum { CURLOPT_URL = 10002, CURLOPT_HTTPHEADER = 10023, CURLOPT_WRITEHEADER = 10029, CURLOPT_HEADERFUNCTION = 20079 };

/* What an endless worker may keep; and how many new ones at least come between two looks for those that are gone. */
enum { MAX_KNOWN_HANDLES = 10000 };
const unsigned LEAST_ROOM = 4;

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
	if ((unsigned)zend_hash_num_elements(handles) >= ZQG(curl_handles_room)) {
		zend_hash_apply_with_arguments(handles TSRMLS_CC, is_gone, 0);
		const unsigned left = (unsigned)zend_hash_num_elements(handles);
		ZQG(curl_handles_room) = left + (left / 2 > LEAST_ROOM ? left / 2 : LEAST_ROOM);
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
			zq_set_curl_option(resource, CURLOPT_HTTPHEADER, none TSRMLS_CC);
			zval_ptr_dtor(&resource);
		}
	}
}

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
		zq_keep_curl_list(handle, headers TSRMLS_CC);
		zq_set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
		known->own_list = true;
	}
	if (zq_callback_works(HEADER_CALLBACK TSRMLS_CC)) { /* curl aborts a transfer whose callback does not answer */
		zval *callback;
		MAKE_STD_ZVAL(callback);
		ZVAL_STRING(callback, HEADER_CALLBACK, 1);
		zq_set_curl_option(handle, CURLOPT_HEADERFUNCTION, callback TSRMLS_CC);
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
		zq_leave_curl_list(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
	} else if (option == CURLOPT_URL) {
		zq_curl_url_is_new(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
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
		zq_curl_url_is_new(handle TSRMLS_CC);
	}
	if (zend_hash_index_exists(set, CURLOPT_HTTPHEADER)) {
		take_lists_off(handle TSRMLS_CC);
		zq_leave_curl_list(handle TSRMLS_CC);
	}
}

/* Original and copy have one list, which is left as it is from then on, without trace context. */
void wrapper_curl_copy_handle(zq_stack_data *call TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 0);
	zq_leave_curl_list(handle TSRMLS_CC);
	zq_forget_curl_list(handle TSRMLS_CC);
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

/* While an exception of one transfer's callback waits, curl cannot call ours, and would end the other transfers for
 * that. Answers to transfers in parallel cannot be told apart anyway. */
void wrapper_curl_multi_add_handle(zq_stack_data *call TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 1);
	if (forget_own_callback(handle TSRMLS_CC)) {
		zval *none;
		ALLOC_INIT_ZVAL(none);
		zq_set_curl_option(handle, CURLOPT_WRITEHEADER, none TSRMLS_CC);
	}
	zq_send_traceparent(handle, false TSRMLS_CC); /* no transfer of many is recorded on its own */
}

/* curl itself walks the script's array to its end and turns its elements into strings, and the script can see both. So
 * the call is left to do that to the array that it was given, and a longer list replaces it afterwards. */
int performance_curl_setopt(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 0);
	zval *given = get_argument_zval(call->execute_data, 2);
	const zval *done = call->return_slot ? *call->return_slot : NULL;
	if (option_of(call) == CURLOPT_HTTPHEADER && done && !zend_is_true((zval *)done)) {
		zq_curl_list_is_as_before(handle TSRMLS_CC);
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
	zq_keep_curl_list(handle, headers TSRMLS_CC);
	zq_set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
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
	zq_send_traceparent(get_argument_zval(call->execute_data, 0), !ZQG(webservice_should_ignored) TSRMLS_CC);
}
