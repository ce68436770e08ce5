/* HTTP through PHP's streams. A stream call can only be given headers by its context, which belongs to the script: the
 * context gets ours for the time of the call. SoapClient reads its context later, so there the header stays. */
#include "zqp_trace_context.h"
#include "zqp_wrapper_headers.h"

namespace {

php_stream_context *context_of_value(zval *value TSRMLS_DC)
{
	/* without a name the engine raises no warning for a resource of another type */
	return (php_stream_context *)zend_fetch_resource(
		&value TSRMLS_CC, -1, NULL, NULL, 1, php_le_stream_context(TSRMLS_C));
}

/* The context that the call will use; null when the engine is going to refuse the argument. */
php_stream_context *context_of_call(zend_execute_data *data, int arg_seq TSRMLS_DC)
{
	zval *given = get_argument_zval(data, arg_seq);
	if (given && Z_TYPE_P(given) != IS_NULL) {
		return Z_TYPE_P(given) == IS_RESOURCE ? context_of_value(given TSRMLS_CC) : NULL;
	}
	if (!FG(default_context)) {
		FG(default_context) = php_stream_context_alloc(TSRMLS_C); /* as the call would at once */
	}
	return FG(default_context);
}

/* The options under "http", made when absent, and not shared with an array that the script has got from the context. */
HashTable *own_http_options(php_stream_context *context, bool *made)
{
	HashTable *options = Z_ARRVAL_P(context->options);
	zval **http, *fresh;
	*made = zend_hash_find(options, "http", sizeof("http"), (void **)&http) != SUCCESS;
	if (*made) {
		MAKE_STD_ZVAL(fresh);
		array_init(fresh);
		zend_hash_update(options, "http", sizeof("http"), &fresh, sizeof(fresh), (void **)&http);
	}
	if (Z_TYPE_PP(http) != IS_ARRAY) {
		return NULL;
	}
	SEPARATE_ZVAL(http);
	return Z_ARRVAL_PP(http);
}

/* A new span for a call of the URL; 0 when it is to carry no trace context. */
uint64 span_for(const char *url TSRMLS_DC)
{
	zq_trace_context *context = zq_trace_context_of(TSRMLS_C);
	bool carries = context && zq_url_takes_traceparent(url TSRMLS_CC) && zq_trace_id(context TSRMLS_CC);
	return carries ? zq_new_span(context) : 0;
}

void set_header(HashTable *options, uint64 span TSRMLS_DC)
{
	zval *header = zq_identity_header(span TSRMLS_CC);
	zend_hash_update(options, "header", sizeof("header"), &header, sizeof(header), NULL);
}

bool has_current_identity(const zval *header TSRMLS_DC)
{
	zval *own = zq_identity_header(0 TSRMLS_CC);
	size_t len = (size_t)Z_STRLEN_P(own);
	bool has = strncmp(Z_STRVAL_P(header), Z_STRVAL_P(own), len) == 0 && strchr("\r", Z_STRVAL_P(header)[len]);
	zval_ptr_dtor(&own);
	return has;
}

/* Puts the identity, and that span's context, into a context that has no header. Our own of an earlier transaction
 * counts as none: contexts outlive the actions of a worker. False when nothing was put there. */
bool put_header(php_stream_context *context, uint64 span, bool *made_options TSRMLS_DC)
{
	zval *current = GET_CONTEXT_HTTP_OPTION(context, "header");
	if (current && !zq_is_identity_header(current TSRMLS_CC)) {
		return false;
	}
	if (current && has_current_identity(current TSRMLS_CC)) { /* by the call that this one is inside */
		if (!span && zq_span_of_header(current TSRMLS_CC)) {
			set_header(own_http_options(context, made_options), 0 TSRMLS_CC);
		}
		return false;
	}
	HashTable *options = own_http_options(context, made_options);
	if (!options) {
		return false;
	}
	set_header(options, span TSRMLS_CC);
	return true;
}

/* $http_response_header where the call was made; null when it is no array. The stream wrapper builds the table of a
 * function's variables when it needs it: where there is none, no answer has come. */
HashTable *response_headers(TSRMLS_D)
{
	zval *headers = FIND_HASH_ZVALUE(EG(active_symbol_table), "http_response_header", sizeof("http_response_header"));
	return headers && Z_TYPE_P(headers) == IS_ARRAY ? Z_ARRVAL_P(headers) : NULL;
}

/* A context with a number of its own range: the script may print those of its later resources. */
php_stream_context *context_apart(TSRMLS_D)
{
	const ulong first = 1 << 30; /* no script gets so far */
	HashTable *resources = &EG(regular_list);
	ulong next = resources->nNextFreeElement;
	resources->nNextFreeElement = first + ZQG(contexts_apart)++ % first;
	php_stream_context *context = php_stream_context_alloc(TSRMLS_C);
	resources->nNextFreeElement = next;
	return context;
}

/* That a SOAP client has; null when it has none. */
php_stream_context *context_of_client(const zval *client TSRMLS_DC)
{
	zval *value =
		FIND_HASH_ZVALUE(zq_property_table((zval *)client TSRMLS_CC), "_stream_context", sizeof("_stream_context"));
	return value && Z_TYPE_P(value) == IS_RESOURCE ? context_of_value(value TSRMLS_CC) : NULL;
}

/* Gives a client's header that is ours another span, or none with 0. The span that it had. */
uint64 change_span(const zval *client, uint64 span TSRMLS_DC)
{
	php_stream_context *context = context_of_client(client TSRMLS_CC);
	const zval *current = context ? GET_CONTEXT_HTTP_OPTION(context, "header") : NULL;
	if (!current || !zq_is_identity_header(current TSRMLS_CC)) {
		return 0;
	}
	uint64 before = zq_span_of_header(current TSRMLS_CC);
	bool made_options;
	HashTable *options = before == span ? NULL : own_http_options(context, &made_options);
	if (options) {
		set_header(options, span TSRMLS_CC);
	}
	return before;
}

void before_stream_call(zq_stack_data *call, int context_seq TSRMLS_DC)
{
	if (!zq_is_http_url(get_argument_char(call->execute_data, 0))) {
		return;
	}
	call->earlier_headers = response_headers(TSRMLS_C);
	if (!zq_identity_is_set(TSRMLS_C)) {
		return;
	}
	php_stream_context *context = context_of_call(call->execute_data, context_seq TSRMLS_CC);
	uint64 span = context ? span_for(get_argument_char(call->execute_data, 0) TSRMLS_CC) : 0;
	if (context && put_header(context, span, &call->lent_options TSRMLS_CC)) {
		call->lent_context = context;
	}
}

} // namespace

bool zq_is_http_url(const char *url)
{
	return url && (strstr(url, "http://") || strstr(url, "https://"));
}

void wrapper_file_get_contents(zq_stack_data *call TSRMLS_DC)
{
	before_stream_call(call, 2 TSRMLS_CC);
}
void wrapper_fopen(zq_stack_data *call TSRMLS_DC)
{
	before_stream_call(call, 3 TSRMLS_CC);
}

uint64 zq_take_back_header(zq_stack_data *call TSRMLS_DC)
{
	php_stream_context *context = call->lent_context;
	const zval *current = GET_CONTEXT_HTTP_OPTION(context, "header");
	if (!current || !zq_is_identity_header(current TSRMLS_CC)) {
		return 0; /* nothing was lent, or a callback of the script has set another */
	}
	uint64 span = zq_span_of_header(current TSRMLS_CC);
	bool made;
	HashTable *options = own_http_options(context, &made);
	zend_hash_del(options, "header", sizeof("header"));
	if (call->lent_options && zend_hash_num_elements(options) == 0) {
		zend_hash_del(Z_ARRVAL_P(context->options), "http", sizeof("http"));
	}
	return span;
}

/* A call that fails before there is an answer leaves the variable of an earlier one as it was. */
const char *zq_stream_answer(const zq_stack_data *call TSRMLS_DC)
{
	const HashTable *headers = response_headers(TSRMLS_C);
	if (!headers || headers == call->earlier_headers) {
		return NULL;
	}
	for (const Bucket *at = headers->pListTail; at; at = at->pListLast) {
		const zval *line = *(zval **)at->pData;
		if (Z_TYPE_P(line) == IS_STRING && Z_STRLEN_P(line) >= ZQ_SHORTEST_ANSWER &&
			strncmp(Z_STRVAL_P(line), ZQ_ANSWER_HEADER, ZQ_ANSWER_HEADER_LEN) == 0) {
			return Z_STRVAL_P(line) + ZQ_ANSWER_HEADER_LEN;
		}
	}
	return NULL;
}

void zq_identify_soap_client(zval *client TSRMLS_DC)
{
	HashTable *properties = zq_property_table(client TSRMLS_CC);
	if (!properties) {
		return;
	}
	php_stream_context *context = context_of_client(client TSRMLS_CC);
	zval *value;
	bool made_options;
	if (!zend_hash_exists(properties, "_stream_context", sizeof("_stream_context"))) {
		context = context_apart(TSRMLS_C);
		MAKE_STD_ZVAL(value);
		ZVAL_RESOURCE(value, context->rsrc_id); /* the property holds the only reference */
		zend_hash_update(properties, "_stream_context", sizeof("_stream_context"), &value, sizeof(value), NULL);
	}
	if (context) {
		put_header(context, 0, &made_options TSRMLS_CC);
	}
	/* without "trace" the client drops response headers; with it, it sets properties that a __set would see */
	if (!Z_OBJCE_P(client)->__set && !zend_hash_exists(properties, "trace", sizeof("trace"))) {
		MAKE_STD_ZVAL(value);
		ZVAL_LONG(value, 1);
		zend_hash_update(properties, "trace", sizeof("trace"), &value, sizeof(value), NULL);
	}
}

void wrapper_soap_request(zq_stack_data *call TSRMLS_DC)
{
	if (call->object && zq_identity_is_set(TSRMLS_C)) {
		change_span(call->object, span_for(get_argument_char(call->execute_data, 1) TSRMLS_CC) TSRMLS_CC);
	}
}

uint64 zq_end_soap_request(const zval *client TSRMLS_DC)
{
	bool may_carry = client && zq_trace_context_of(TSRMLS_C) && zq_identity_is_set(TSRMLS_C);
	return may_carry ? change_span(client, 0 TSRMLS_CC) : 0;
}
