/* The recorder of outgoing calls, and the clients that the engine and its extensions bring: curl, streams, SOAP,
 * HttpRequest. */
#include "zqp_wrapper_external.h"

#include <initializer_list>

#include "zqp_component.h"
#include "zqp_trace_context.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"
#include "zqp_wrapper_headers.h"

namespace {

/* Every URL needs a host; one curl_multi_exec serves many. */
constexpr char MANY_HOSTS[] = "http://unknown-host";

/* curl's numbers, so that the agent need not be linked with it. */
enum { CURLINFO_EFFECTIVE_URL = 1048577, CURLINFO_RESPONSE_CODE = 2097154 };

int elapsed_ms(uint64 begin_us, uint64 end_us)
{
	return (int)((end_us - begin_us) / 1000);
}

/* 401 asks for credentials and is the first half of a normal exchange. */
bool is_failure(int status)
{
	return status == 400 || status >= 402;
}

webservice_element *describe_call(const zq_stack_data *call, const char *url, const char *transaction_data, int status,
	const char *error_msg TSRMLS_DC)
{
	webservice_element *element = webservice_element_alloc(call->cls, call->func, url, NULL, transaction_data);
	for (size_t i = strcspn(url, ":/?"); i-- > 0;) {
		element->name[i] = zq_ascii_lower(element->name[i]); /* the scheme */
	}
	zq_str_replace_ln(element->name); /* one line of its record, whatever the URL holds */
	if (element->transaction_data) {
		zq_str_replace_ln(element->transaction_data);
	}
	for (char *at = element->transaction_data; at && (at = strchr(at, '\'')) != NULL; at++) {
		*at = '"'; /* some callees answer in single quotes */
	}
	element->status = status;
	if (error_msg) {
		element->error_msg = estrdup(error_msg);
		zq_str_replace_ln(element->error_msg);
	}
	if (error_msg || is_failure(status)) {
		element->stack = zq_code_stack_text(TSRMLS_C);
	}
	return element;
}

size_t recorded_bytes(const webservice_element *element)
{
	size_t bytes = sizeof(*element) + (element->stack ? zq_stack_size(element->stack) : 0);
	for (const char *text : {element->name, element->url, element->transaction_data, element->error_msg}) {
		bytes += text ? strlen(text) : 0;
	}
	return bytes;
}

void append_call(webservice_element *element, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	ZQG(recorded_webservice_bytes) += recorded_bytes(element);
	zq_list_append(ZQG(webservices), element);
	if (zq_trace_context *context = zq_trace_context_of(TSRMLS_C)) {
		zq_note_call_span(context, begin_us, end_us TSRMLS_CC);
	}
}

bool is_list_full(TSRMLS_D)
{
	if (ZQG(recorded_webservice_bytes) < zq_most_recorded_bytes(TSRMLS_C)) {
		return false;
	}
	zq_note_recorded_limit("outgoing calls" TSRMLS_CC);
	return true;
}

/* Result of a curl function that takes the handle and perhaps one number, neither of which it keeps; to be released. */
int ask_curl(const char *name, zval *handle, const long *number, zval *result TSRMLS_DC)
{
	zval argument;
	INIT_PZVAL(&argument);
	ZVAL_LONG(&argument, number ? *number : 0);
	zval *params[] = {handle, &argument};
	return zq_call_named(NULL, name, result, number ? 2 : 1, params TSRMLS_CC);
}

int status_of_transfer(zval *handle TSRMLS_DC)
{
	const long code = CURLINFO_RESPONSE_CODE;
	zval result;
	ask_curl("curl_getinfo", handle, &code, &result TSRMLS_CC);
	int status = Z_TYPE(result) == IS_LONG ? (int)Z_LVAL(result) : 0;
	zq_release_result(&result TSRMLS_CC);
	return status;
}

int record_transfer(zq_stack_data *call, zval *handle, const char *url, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	const zval *outcome = call->return_slot ? *call->return_slot : NULL;
	const char *answer = ZQG(transaction_curl_response_data);
	if (!outcome || Z_TYPE_P(outcome) != IS_BOOL || Z_BVAL_P(outcome)) {
		return EXTERNAL_SERVICE(
			call, url, answer, status_of_transfer(handle TSRMLS_CC), NULL, begin_us, end_us TSRMLS_CC);
	}
	zval error;
	ask_curl("curl_error", handle, NULL, &error TSRMLS_CC);
	const char *text =
		Z_TYPE(error) == IS_STRING ? Z_STRVAL(error) : ""; /* a failure also when curl has no words for it */
	int recorded = EXTERNAL_SERVICE(call, url, answer, 0, text, begin_us, end_us TSRMLS_CC);
	zq_release_result(&error TSRMLS_CC);
	return recorded;
}

int record_stream_call(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	uint64 span = zq_take_back_header(call TSRMLS_CC);
	if (ZQG(webservice_should_ignored)) {
		return 0;
	}
	zq_component_spent_outside(elapsed_ms(begin_us, end_us) TSRMLS_CC);
	const char *url = get_argument_char(call->execute_data, 0);
	if (!zq_is_http_url(url)) {
		return 0;
	}
	const char *answer = ZQG(transaction_tracer_enabled) ? zq_stream_answer(call TSRMLS_CC) : NULL;
	zq_call_carried(span TSRMLS_CC);
	return EXTERNAL_SERVICE(call, url, answer, 0, NULL, begin_us, end_us TSRMLS_CC);
}

/* The callee's data among a SOAP client's last response headers, as a copy; null when there is none. The headers of an
 * earlier answer stay when a request gets none. */
char *soap_answer(const zq_stack_data *call TSRMLS_DC)
{
	const zval *body = call->return_slot ? *call->return_slot : NULL;
	if (!ZQG(transaction_tracer_enabled) || !body || Z_TYPE_P(body) != IS_STRING) {
		return NULL;
	}
	const zval *headers = FIND_HASH_ZVALUE(
		zq_property_table(call->object TSRMLS_CC), "__last_response_headers", sizeof("__last_response_headers"));
	const char *value =
		headers && Z_TYPE_P(headers) == IS_STRING ? strstr(Z_STRVAL_P(headers), ZQ_ANSWER_HEADER) : NULL;
	if (!value) {
		return NULL;
	}
	value += ZQ_ANSWER_HEADER_LEN;
	return estrndup(value, (uint)strcspn(value, "\r\n"));
}

} // namespace

int EXTERNAL_SERVICE(zq_stack_data *call, const char *url, const char *transaction_data, int status,
	const char *error_msg, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	if (!ZQG(webservices) || !url || !strstr(url, "://")) {
		zq_call_carried(0 TSRMLS_CC);
		return 0;
	}
	int metric_ms = elapsed_ms(begin_us, end_us);
	if (zq_details *details = ZQG(details)) {
		details->services_us += end_us - begin_us;
		details->services++;
	}
	if (is_list_full(TSRMLS_C)) {
		ZQG(unlisted_webservice_ms) += metric_ms;
		zq_call_carried(0 TSRMLS_CC);
		return 1;
	}
	webservice_element *element = describe_call(call, url, transaction_data, status, error_msg TSRMLS_CC);
	element->metric = metric_ms;
	if (!ZQG(action_tracer_enabled)) {
		append_call(element, begin_us, end_us TSRMLS_CC);
		return 1;
	}
	if (element->transaction_data && strstr(element->transaction_data, "\"tr\"")) {
		ZQG(child_has_tracer) = 1; /* the callee has kept a trace of its own: without ours it would hang in the air */
	}
	if (end_us - begin_us <= ZQG(tracer_threshold_tick) || begin_us < ZQG(rinit_tick)) {
		append_call(element, begin_us, end_us TSRMLS_CC);
		return 1;
	}
	element->url = estrdup(url);
	zq_str_replace_ln(element->url);
	append_call(element, begin_us, end_us TSRMLS_CC);
	zq_trace_call(call->cls, call->func, call->execute_data, begin_us, end_us, ZQ_TRACER_EXTERNAL, element TSRMLS_CC);
	return 1;
}

int performance_curl_exec(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_component_spent_outside(elapsed_ms(begin_us, end_us) TSRMLS_CC);
	zval *handle = get_argument_zval(call->execute_data, 0);
	if (!handle || Z_TYPE_P(handle) != IS_RESOURCE) {
		return 0;
	}
	const long what = CURLINFO_EFFECTIVE_URL;
	zval url;
	int recorded = 0;
	if (ask_curl("curl_getinfo", handle, &what, &url TSRMLS_CC) == SUCCESS && Z_TYPE(url) == IS_STRING) {
		zq_call_carried(zq_curl_span(handle TSRMLS_CC) TSRMLS_CC);
		recorded = record_transfer(call, handle, Z_STRVAL(url), begin_us, end_us TSRMLS_CC);
	}
	zq_release_result(&url TSRMLS_CC);
	zq_drop_curl_answer(TSRMLS_C);
	return recorded;
}

int performance_curl_multi_exec(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_component_spent_outside(elapsed_ms(begin_us, end_us) TSRMLS_CC);
	return EXTERNAL_SERVICE(call, MANY_HOSTS, NULL, 0, NULL, begin_us, end_us TSRMLS_CC);
}

int performance_file_get_contents(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	return record_stream_call(call, begin_us, end_us TSRMLS_CC);
}

int performance_fopen(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	return record_stream_call(call, begin_us, end_us TSRMLS_CC);
}

int performance_soapclient_construct(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	if (!EG(exception)) {
		zq_identify_soap_client(call->object TSRMLS_CC);
	}
	return 0;
}

int performance_soapclient(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_component_spent_outside(elapsed_ms(begin_us, end_us) TSRMLS_CC);
	const char *location = get_argument_char(call->execute_data, 1);
	char *answer = soap_answer(call TSRMLS_CC);
	zq_call_carried(zq_end_soap_request(call->object TSRMLS_CC) TSRMLS_CC);
	int recorded = EXTERNAL_SERVICE(call, location, answer, 0, NULL, begin_us, end_us TSRMLS_CC);
	if (answer) {
		efree(answer);
	}
	return recorded;
}

int performance_httprequest_send(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_component_spent_outside(elapsed_ms(begin_us, end_us) TSRMLS_CC);
	if (!call->object || Z_TYPE_P(call->object) != IS_OBJECT) {
		return 0;
	}
	zend_class_entry *scope = Z_OBJCE_P(call->object); /* the property is private: read as its class would */
	while (scope->parent && strcmp(scope->name, call->cls) != 0) {
		scope = scope->parent;
	}
	zval url;
	zq_read_property(scope, call->object, "url", &url TSRMLS_CC);
	const char *text = Z_TYPE(url) == IS_STRING ? Z_STRVAL(url) : NULL;
	int recorded = EXTERNAL_SERVICE(call, text, NULL, 0, NULL, begin_us, end_us TSRMLS_CC);
	zq_release_result(&url TSRMLS_CC);
	return recorded;
}
