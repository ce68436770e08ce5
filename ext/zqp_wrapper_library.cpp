/* HTTP clients written in PHP. Where a library uses curl or a stream inside, that call is silenced: one request, one
 * record, under the name that the application knows. */
#include "zqp_component.h"
#include "zqp_debug.h"
#include "zqp_trace_context.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_headers.h"

namespace {

int record_url(zq_stack_data *call, const char *url, const char *answer, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_component_spent_outside((int)((end_us - begin_us) / 1000) TSRMLS_CC);
	return url && *url && EXTERNAL_SERVICE(call, url, answer, 0, NULL, begin_us, end_us TSRMLS_CC);
}

/* For a function that is given the full URL. */
int record_url_argument(zq_stack_data *call, int arg_seq, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	return record_url(call, get_argument_char(call->execute_data, arg_seq), NULL, begin_us, end_us TSRMLS_CC);
}

zval *property_of(zval *object, const char *name, size_t size TSRMLS_DC)
{
	return FIND_HASH_ZVALUE(zq_property_table(object TSRMLS_CC), name, (uint)size);
}

/* Adopts the text. */
void set_header(zval *transport, const char *header, smart_str *text TSRMLS_DC)
{
	zval *name, *value, result;
	MAKE_STD_ZVAL(name);
	ZVAL_STRING(name, header, 1);
	MAKE_STD_ZVAL(value);
	int len = (int)text->len;
	ZVAL_STRINGL(value, zq_buffer_text(text), len, 0);
	zval *params[] = {name, value};
	zq_call_named(transport, "setHeader", &result, 2, params TSRMLS_CC);
	zq_release_result(&result TSRMLS_CC);
	zval_ptr_dtor(&value);
	zval_ptr_dtor(&name);
}

bool is_span(const zval *header, uint64 span)
{
	zq_traceparent parent;
	return zq_read_traceparent({Z_STRVAL_P(header), (size_t)Z_STRLEN_P(header)}, &parent) &&
		memcmp(parent.span_id, &span, sizeof(span)) == 0;
}

/* Whether a transport's URL and its own headers let it carry the trace context; one with that span is ours. */
bool takes_traceparent(zval *transport, uint64 last_span TSRMLS_DC)
{
	const zval *url = property_of(transport, "url", sizeof("url") TSRMLS_CC);
	const zval *headers = property_of(transport, "outgoing_headers", sizeof("outgoing_headers") TSRMLS_CC);
	if (!url || Z_TYPE_P(url) != IS_STRING || !zq_url_takes_traceparent(Z_STRVAL_P(url) TSRMLS_CC)) {
		return false;
	}
	const HashTable *table = headers && Z_TYPE_P(headers) == IS_ARRAY ? Z_ARRVAL_P(headers) : NULL;
	for (const Bucket *at = table ? table->pListHead : NULL; at; at = at->pListNext) {
		const zval *value = *(zval **)at->pData;
		if (at->nKeyLength && Z_TYPE_P(value) == IS_STRING && !is_span(value, last_span) &&
			zq_header_forbids_traceparent(at->arKey, Z_STRVAL_P(value))) {
			return false;
		}
	}
	return true;
}

void set_identity(zval *transport TSRMLS_DC)
{
	smart_str identity = {};
	zq_append_identity(&identity TSRMLS_CC);
	set_header(transport, "X-Vantor-Id", &identity TSRMLS_CC);
	zq_trace_context *context = zq_trace_context_of(TSRMLS_C);
	if (!context) {
		return;
	}
	bool takes = takes_traceparent(transport, context->nusoap_span TSRMLS_CC) && zq_trace_id(context TSRMLS_CC);
	context->nusoap_span = takes ? zq_new_span(context) : 0;
	if (takes) {
		smart_str value = {};
		zq_append_traceparent(&value, context, context->nusoap_span TSRMLS_CC);
		set_header(transport, "traceparent", &value TSRMLS_CC);
	}
}

} // namespace

int wrapper_snoopy_httprequest(zend_execute_data *, char *TSRMLS_DC)
{
	zq_watch_after("Snoopy::_httprequest", sizeof("Snoopy::_httprequest"), performance_snoopy_httprequest TSRMLS_CC);
	return 0;
}

int performance_snoopy_httprequest(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	return record_url_argument(call, 2, begin_us, end_us TSRMLS_CC);
}

int wrapper_nusoap_send(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 1;
	zq_watch_after("soap_transport_http::send", sizeof("soap_transport_http::send"), performance_nusoap_send TSRMLS_CC);
	if (execute_data->object && zq_identity_is_set(TSRMLS_C)) {
		set_identity(execute_data->object TSRMLS_CC);
	}
	return 0;
}

int performance_nusoap_send(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 0;
	const zval *url = property_of(call->object, "url", sizeof("url") TSRMLS_CC);
	if (!url || Z_TYPE_P(url) != IS_STRING || !Z_STRLEN_P(url)) {
		ZQ_LOG(ZQ_LOG_DEBUG, "nusoap_client get url fail");
		return record_url(call, NULL, NULL, begin_us, end_us TSRMLS_CC);
	}
	char *without_query = estrndup(Z_STRVAL_P(url), (uint)strcspn(Z_STRVAL_P(url), "?"));
	zval *headers = property_of(call->object, "incoming_headers", sizeof("incoming_headers") TSRMLS_CC);
	const char *answer = get_hash_value_by_name(headers, "X-Vantor-Tx-Data", sizeof("X-Vantor-Tx-Data"));
	if (const zq_trace_context *context = zq_trace_context_of(TSRMLS_C)) {
		zq_call_carried(context->nusoap_span TSRMLS_CC);
	}
	int recorded = record_url(call, without_query, answer, begin_us, end_us TSRMLS_CC);
	efree(without_query);
	return recorded;
}

int performance_drupal_http_request(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 0;
	return record_url_argument(call, 0, begin_us, end_us TSRMLS_CC);
}

int performance_wp_http_request(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 0;
	return record_url_argument(call, 0, begin_us, end_us TSRMLS_CC);
}

int performance_zend_http_client_request(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 0;
	zval *as_text, url;
	MAKE_STD_ZVAL(as_text);
	ZVAL_BOOL(as_text, 1);
	zq_call_named(call->object, "getUri", &url, 1, &as_text TSRMLS_CC);
	const char *text = Z_TYPE(url) == IS_STRING ? Z_STRVAL(url) : NULL;
	int recorded = record_url(call, text, NULL, begin_us, end_us TSRMLS_CC);
	zq_release_result(&url TSRMLS_CC);
	zval_ptr_dtor(&as_text);
	return recorded;
}
