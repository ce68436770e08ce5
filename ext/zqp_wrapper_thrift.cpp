/* Thrift clients. The protocol has no headers: the identity travels as a field that a server which does not know it
 * skips, and the callee's data comes back as a field that the client skips. */
#include "zqp_component.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_headers.h"

namespace {

#define THRIFT_PROTOCOL "Thrift\\Protocol\\TBinaryProtocol"

/* The protocol's own numbers. */
enum { MESSAGE_REPLY = 2, MESSAGE_EXCEPTION = 3, TYPE_STRING = 11, IDENTITY_FIELD = 65535 };

constexpr char ANSWER_KEY[] = "\"VantorTxData\":";

/* Class of the first compiled code from `frame` outwards, or null. */
const zend_class_entry *calling_class(const zend_execute_data *frame)
{
	while (frame && !frame->op_array) {
		frame = frame->prev_execute_data;
	}
	return frame ? frame->op_array->scope : NULL;
}

void watch_service_method(const zend_class_entry *client, const char *message TSRMLS_DC)
{
	char *name;
	int len = spprintf(&name, 0, "%s::%s", client->name, message);
	zq_watch_after(name, (size_t)len + 1, performance_thrift_custom_function TSRMLS_CC);
	efree(name);
}

zval *new_text(const char *text)
{
	zval *value;
	MAKE_STD_ZVAL(value);
	ZVAL_STRING(value, text, 1);
	return value;
}

zval *new_number(long number)
{
	zval *value;
	MAKE_STD_ZVAL(value);
	ZVAL_LONG(value, number);
	return value;
}

/* Calls a method of the protocol object, giving the parameters away. */
int call_protocol(zval *protocol, const char *method, zend_uint count, zval **params TSRMLS_DC)
{
	zval result;
	int outcome = zq_call_named(protocol, method, &result, count, params TSRMLS_CC);
	zq_release_result(&result TSRMLS_CC);
	for (zend_uint i = 0; i < count; i++) {
		zval_ptr_dtor(&params[i]);
	}
	return outcome;
}

zval *identity_field_value(TSRMLS_D)
{
	smart_str json = {};
	zq_append_text(&json, "{\"VantorID\":\"");
	zq_append_identity(&json TSRMLS_CC);
	zq_append_text(&json, "\"}");
	zval *value = new_text(zq_buffer_text(&json));
	zq_buffer_free(&json);
	return value;
}

/* "thrift://<host>/<class>.<function>" */
char *service_url(const zq_stack_data *call TSRMLS_DC)
{
	if (!ZQG(thrift_host)) {
		ZQG(thrift_host) = estrdup("unknown-thrift-host");
	}
	char *url;
	spprintf(&url, 0, "thrift://%s/%s.%s", ZQG(thrift_host), call->cls ? call->cls : "", call->func);
	for (char *at = url; (at = strchr(at, '\\')) != NULL; at++) {
		*at = '.';
	}
	return url;
}

/* Text of the exception that the call has left with; borrowed, null when there is none. */
const char *pending_message(TSRMLS_D)
{
	if (!EG(exception)) {
		return NULL;
	}
	const zval *message = zend_read_property(
		zend_exception_get_default(TSRMLS_C), EG(exception), (char *)"message", sizeof("message") - 1, 1 TSRMLS_CC);
	return message && Z_TYPE_P(message) == IS_STRING && Z_STRLEN_P(message) ? Z_STRVAL_P(message) : NULL;
}

} // namespace

int wrapper_thrift_transport_construct(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	const char *host = get_argument_char(execute_data, 0);
	if (host && *host) {
		zq_replace_text(&ZQG(thrift_host), estrdup(host));
	}
	return 0;
}

int wrapper_thrift_protocol_writemessagebegin(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	const char *message = get_argument_char(execute_data, 0);
	long type = get_argument_long(execute_data, 1);
	if (!message || !*message || type == MESSAGE_REPLY || type == MESSAGE_EXCEPTION) {
		return 0; /* the latter two are a server's answers: no call begins */
	}
	const zend_class_entry *client = calling_class(execute_data);
	if (client) {
		watch_service_method(client, message TSRMLS_CC);
		zq_watch_before(THRIFT_PROTOCOL "::writeFieldStop", sizeof(THRIFT_PROTOCOL "::writeFieldStop"),
			wrapper_thrift_protocol_writefieldstop TSRMLS_CC);
		zq_watch_before("Thrift\\Protocol\\TProtocol::skip", sizeof("Thrift\\Protocol\\TProtocol::skip"),
			wrapper_thrift_protocol_skip TSRMLS_CC);
	}
	ZQG(webservice_should_ignored) = 1;
	return 0;
}

int wrapper_thrift_protocol_writefieldstop(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	zval *protocol = execute_data->object;
	if (!protocol || !zq_identity_is_set(TSRMLS_C)) {
		return 0;
	}
	zval *field[] = {new_text("__x__vantor__id__"), new_number(TYPE_STRING), new_number(IDENTITY_FIELD)};
	if (call_protocol(protocol, "writeFieldBegin", 3, field TSRMLS_CC) != SUCCESS) {
		return 0;
	}
	zval *value = identity_field_value(TSRMLS_C);
	if (call_protocol(protocol, "writeString", 1, &value TSRMLS_CC) == SUCCESS) {
		call_protocol(protocol, "writeFieldEnd", 0, NULL TSRMLS_CC);
	}
	return 0;
}

int wrapper_thrift_protocol_skip(zend_execute_data *, char *TSRMLS_DC)
{
	if (ZQG(transaction_tracer_enabled)) {
		zq_watch_after(THRIFT_PROTOCOL "::readString", sizeof(THRIFT_PROTOCOL "::readString"),
			performance_thrift_protocol_readstring TSRMLS_CC);
	}
	return 0;
}

int performance_thrift_protocol_readstring(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	const char *text = get_argument_char(call->execute_data, 0); /* by reference: what was read */
	if (text && strstr(text, ANSWER_KEY)) {
		zq_replace_text(&ZQG(thrift_tx_data), estrdup(text));
	}
	return 0;
}

int performance_thrift_custom_function(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 0;
	zq_component_spent_outside((int)((end_us - begin_us) / 1000) TSRMLS_CC);
	char *url = service_url(call TSRMLS_CC);
	int recorded =
		EXTERNAL_SERVICE(call, url, ZQG(thrift_tx_data), 0, pending_message(TSRMLS_C), begin_us, end_us TSRMLS_CC);
	efree(url);
	zq_replace_text(&ZQG(thrift_tx_data), NULL);
	return recorded;
}
