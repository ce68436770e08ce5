/* The caller's identity as text, and how curl handles come to carry it and to hand back the callee's answer. */
#include "zqp_wrapper_headers.h"

namespace {

constexpr char IDENTITY_HEADER[] = "X-Vantor-Id: ";
constexpr char HEADER_CALLBACK[] = "zqprof_curl_header";

/* curl's numbers, so that the agent need not be linked with it. */
enum { CURLOPT_HTTPHEADER = 10023, CURLOPT_WRITEHEADER = 10029, CURLOPT_HEADERFUNCTION = 20079 };

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

void note_own_callback(const zval *handle TSRMLS_DC)
{
	HashTable *handles = ZQG(own_curl_callbacks);
	if (!handles) {
		handles = ZQG(own_curl_callbacks) = (HashTable *)emalloc(sizeof(HashTable));
		zend_hash_init(handles, 8, NULL, NULL, 0);
	}
	if (zend_hash_num_elements(handles) >= MAX_KNOWN_HANDLES) {
		zend_hash_clean(handles);
	}
	char is_there = 1;
	zend_hash_index_update(handles, (ulong)Z_LVAL_P(handle), &is_there, sizeof(is_there), NULL);
}

/* 1 when the handle had our callback alone until now. */
int forget_own_callback(const zval *handle TSRMLS_DC)
{
	HashTable *handles = ZQG(own_curl_callbacks);
	return handles && handle && Z_TYPE_P(handle) == IS_RESOURCE &&
		zend_hash_index_del(handles, (ulong)Z_LVAL_P(handle)) == SUCCESS;
}

void identify_curl_handle(zval *handle TSRMLS_DC)
{
	if (!handle || Z_TYPE_P(handle) != IS_RESOURCE) {
		return;
	}
	zval *headers;
	MAKE_STD_ZVAL(headers);
	array_init(headers);
	add_next_index_zval(headers, zq_identity_header(TSRMLS_C));
	set_curl_option(handle, CURLOPT_HTTPHEADER, headers TSRMLS_CC);
	if (zq_callback_works(HEADER_CALLBACK TSRMLS_CC)) { /* curl aborts a transfer whose callback does not answer */
		zval *callback;
		MAKE_STD_ZVAL(callback);
		ZVAL_STRING(callback, HEADER_CALLBACK, 1);
		set_curl_option(handle, CURLOPT_HEADERFUNCTION, callback TSRMLS_CC);
		note_own_callback(handle TSRMLS_CC);
	}
}

long option_of(zq_stack_data *call)
{
	return get_argument_long(call->execute_data, 1);
}

} // namespace

/* The id may be a caller's: a line end in it would start a header of that caller's making. */
void zq_append_identity(smart_str *dest TSRMLS_DC)
{
	size_t start = dest->len;
	zq_append_text(dest, ZQG(vantor_id_secret));
	zq_append_text(dest, ";c=1;x=");
	zq_append_text(dest, ZQG(transaction_id));
	zq_str_replace_ln(zq_buffer_text(dest) + start);
}

zval *zq_identity_header(TSRMLS_D)
{
	smart_str line = {};
	zq_append_text(&line, IDENTITY_HEADER);
	zq_append_identity(&line TSRMLS_CC);
	zval *header;
	MAKE_STD_ZVAL(header);
	int len = (int)line.len;
	ZVAL_STRINGL(header, zq_buffer_text(&line), len, 0);
	return header;
}

bool zq_is_identity_header(const zval *header)
{
	return Z_TYPE_P(header) == IS_STRING &&
		strncmp(Z_STRVAL_P(header), IDENTITY_HEADER, sizeof(IDENTITY_HEADER) - 1) == 0 &&
		!strpbrk(Z_STRVAL_P(header), "\r\n"); /* a script that forwards an id ends its line, and may go on */
}

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
	if (option != CURLOPT_HEADERFUNCTION || ZQG(webservice_should_ignored)) {
		return;
	}
	zq_watch_callback(call->execute_data, 2, wrapper_curl_header_handler TSRMLS_CC);
}

void wrapper_curl_setopt_array(zq_stack_data *call TSRMLS_DC)
{
	const zval *options = get_argument_zval(call->execute_data, 1);
	if (options && Z_TYPE_P(options) == IS_ARRAY &&
		(zend_hash_index_exists(Z_ARRVAL_P(options), CURLOPT_HEADERFUNCTION) ||
			zend_hash_index_exists(Z_ARRVAL_P(options), CURLOPT_WRITEHEADER))) {
		forget_own_callback(get_argument_zval(call->execute_data, 0) TSRMLS_CC);
	}
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
}

/* curl itself walks the script's array to its end and turns its elements into strings, and the script can see both. So
 * the call is left to do that to the array that it was given, and a longer list replaces it afterwards. */
int performance_curl_setopt(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	zval *handle = get_argument_zval(call->execute_data, 0);
	zval *given = get_argument_zval(call->execute_data, 2);
	const zval *done = call->return_slot ? *call->return_slot : NULL;
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
	add_next_index_zval(headers, zq_identity_header(TSRMLS_C));
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

void wrapper_curl_exec(zq_stack_data *TSRMLS_DC)
{
	zq_drop_curl_answer(TSRMLS_C);
}
