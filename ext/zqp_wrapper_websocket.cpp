/* WebSocket clients written in PHP, by the class name that is common among them: the handshake is an HTTP request that
 * the class writes itself, and what follows on the socket is recorded per message sent. */
#include "zqp_component.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_headers.h"

namespace {

constexpr char CLIENT_CLASS[] = "WebsocketClient";
constexpr char HANDSHAKE_KEY[] = "Sec-WebSocket-Key: ";
/* What is kept on the client object from its connect call on. */
constexpr char SOCKET_URL[] = "___zq_url";
constexpr char SOCKET_DATA[] = "___zq_data";

/* Behind the back of the object's __set. */
void remember_on_object(
	zval *object, const char *property, size_t property_size, const char *text, size_t len TSRMLS_DC)
{
	HashTable *properties = zq_property_table(object TSRMLS_CC);
	if (!properties) {
		return;
	}
	zval *value;
	MAKE_STD_ZVAL(value);
	ZVAL_STRINGL(value, text, (int)len, 1);
	zend_hash_update(properties, property, (uint)property_size, &value, sizeof(value), NULL);
}

/* "ws://host[:port]path" of the arguments of a connect call. */
void remember_socket_url(zend_execute_data *execute_data TSRMLS_DC)
{
	const char *host = get_argument_char(execute_data, 0);
	if (!host) {
		return;
	}
	const zval *port = get_argument_zval(execute_data, 1);
	smart_str url = {};
	zq_append_text(&url, "ws://");
	zq_append_text(&url, host);
	if (port && Z_TYPE_P(port) == IS_LONG) {
		zq_append_char(&url, ':');
		zq_append_long(&url, Z_LVAL_P(port));
	} else if (port && Z_TYPE_P(port) == IS_STRING && Z_STRLEN_P(port)) {
		zq_append_char(&url, ':');
		zq_append_text(&url, Z_STRVAL_P(port));
	}
	zq_append_text(&url, get_argument_char(execute_data, 2));
	remember_on_object(execute_data->object, SOCKET_URL, sizeof(SOCKET_URL), url.c, url.len TSRMLS_CC);
	zq_buffer_free(&url);
}

const char *find_key_header(const zval *handshake)
{
	char *text = Z_STRVAL_P(handshake);
	return zend_memnstr(text, HANDSHAKE_KEY, sizeof(HANDSHAKE_KEY) - 1, text + Z_STRLEN_P(handshake));
}

/* The line that goes in front of the key header, with its line end. */
void append_identity_line(smart_str *text TSRMLS_DC)
{
	zval *header = zq_identity_header(0 TSRMLS_CC);
	zq_append(text, Z_STRVAL_P(header), (size_t)Z_STRLEN_P(header));
	zq_append_text(text, "\r\n");
	zval_ptr_dtor(&header);
}

/* The handshake with the identity, as a value of its own. */
zval *handshake_with_identity(const zval *handshake, const char *key_header TSRMLS_DC)
{
	size_t before = (size_t)(key_header - Z_STRVAL_P(handshake));
	smart_str text = {};
	zq_append(&text, Z_STRVAL_P(handshake), before);
	append_identity_line(&text TSRMLS_CC);
	zq_append(&text, key_header, (size_t)Z_STRLEN_P(handshake) - before);

	zval *fresh;
	MAKE_STD_ZVAL(fresh);
	int len = (int)text.len;
	ZVAL_STRINGL(fresh, zq_buffer_text(&text), len, 0);
	return fresh;
}

/* Of `written` bytes of a handshake with our line, those that are the script's own. */
long own_bytes_written(const zval *handshake, long written TSRMLS_DC)
{
	const char *key_header = find_key_header(handshake);
	smart_str line = {};
	append_identity_line(&line TSRMLS_CC);
	long added = (long)line.len, at = key_header ? key_header - Z_STRVAL_P(handshake) - added : -1;
	bool is_ours = at >= 0 && memcmp(Z_STRVAL_P(handshake) + at, line.c, line.len) == 0;
	zq_buffer_free(&line);
	if (!is_ours || written <= at) {
		return written;
	}
	return written - added > at ? written - added : at;
}

} // namespace

int wrapper_websocket_connect(zend_execute_data *execute_data, char *TSRMLS_DC)
{
	zq_watch_after(
		"WebsocketClient::connect", sizeof("WebsocketClient::connect"), performance_websocket_connect TSRMLS_CC);
	zq_watch_after(
		"WebsocketClient::sendData", sizeof("WebsocketClient::sendData"), performance_websocket_senddata TSRMLS_CC);
	remember_socket_url(execute_data TSRMLS_CC);
	ZQG(ws_enabled) = 1;
	return 0;
}

int performance_websocket_connect(zq_stack_data *, uint64, uint64 TSRMLS_DC)
{
	ZQG(ws_enabled) = 0;
	return 0;
}

/* The handshake's data counts once: it belongs to the first message. */
int performance_websocket_senddata(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_component_spent_outside((int)((end_us - begin_us) / 1000) TSRMLS_CC);
	HashTable *properties = zq_property_table(call->object TSRMLS_CC);
	const zval *url = FIND_HASH_ZVALUE(properties, SOCKET_URL, sizeof(SOCKET_URL));
	if (!url || Z_TYPE_P(url) != IS_STRING) {
		return 0;
	}
	const zval *data = FIND_HASH_ZVALUE(properties, SOCKET_DATA, sizeof(SOCKET_DATA));
	const char *answer = data && Z_TYPE_P(data) == IS_STRING ? Z_STRVAL_P(data) : NULL;
	EXTERNAL_SERVICE(call, Z_STRVAL_P(url), answer, 0, NULL, begin_us, end_us TSRMLS_CC);
	zend_hash_del(properties, SOCKET_DATA, sizeof(SOCKET_DATA));
	return 1;
}

/* fwrite(stream, data [, length]): a length that covers the data grows with it; one that cuts it asks for a part only,
 * and a part is left alone. */
void wrapper_fwrite(zq_stack_data *call TSRMLS_DC)
{
	zval **data = zq_argument_slot(call->execute_data, 1);
	zval **length = zq_argument_slot(call->execute_data, 2);
	if (!data || Z_TYPE_PP(data) != IS_STRING ||
		(length && (Z_TYPE_PP(length) != IS_LONG || Z_LVAL_PP(length) < Z_STRLEN_PP(data)))) {
		return;
	}
	const char *key_header = find_key_header(*data);
	if (!key_header) {
		return;
	}
	zq_argument_replace(data, handshake_with_identity(*data, key_header TSRMLS_CC));
	if (length) {
		zval *longer;
		MAKE_STD_ZVAL(longer);
		ZVAL_LONG(longer, Z_STRLEN_PP(data));
		zq_argument_replace(length, longer);
	}
}

/* A script compares the result with the length of its own handshake. */
int performance_fwrite(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	const zval *data = get_argument_zval(call->execute_data, 1);
	zval *written = call->return_slot ? *call->return_slot : NULL;
	if (data && Z_TYPE_P(data) == IS_STRING && written && Z_TYPE_P(written) == IS_LONG) {
		Z_LVAL_P(written) = own_bytes_written(data, Z_LVAL_P(written) TSRMLS_CC);
	}
	return 0;
}

int performance_fread(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	const zval *text = call->return_slot ? *call->return_slot : NULL;
	const zend_op_array *caller = call->execute_data->op_array;
	if (!text || Z_TYPE_P(text) != IS_STRING || !caller || !caller->scope ||
		strcmp(caller->scope->name, CLIENT_CLASS) != 0) {
		return 0;
	}
	char *end = Z_STRVAL_P(text) + Z_STRLEN_P(text);
	const char *value = zend_memnstr(Z_STRVAL_P(text), ZQ_ANSWER_HEADER, ZQ_ANSWER_HEADER_LEN, end);
	if (value) {
		value += ZQ_ANSWER_HEADER_LEN;
		remember_on_object(EG(This), SOCKET_DATA, sizeof(SOCKET_DATA), value, strcspn(value, "\r\n") TSRMLS_CC);
	}
	return 0;
}
