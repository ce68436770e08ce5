/* The two tables of watched user functions, the names in them from the start of a request, and the callbacks that are too
 * small for a file of their own. */
#include "zqp_debug.h"
#include "zqp_exception.h"
#include "zqp_name_table.h"
#include "zqp_rum.h"
#include "zqp_wrapper.h"

namespace {

struct zq_seed_row {
	const char *name;
	uint size; /* counts the NUL */
	zq_wrapper_callback callback;
	template <size_t N>
	consteval zq_seed_row(const char (&text)[N], zq_wrapper_callback wrapper) : name(text), size(N), callback(wrapper) {}
};

/* What reveals a framework or a library; the callback then adds the names that matter for it. */
constexpr zq_seed_row seed_rows[] = {
	{"WebsocketClient::connect", wrapper_websocket_connect},
};

constexpr char HANDSHAKE_KEY[] = "Sec-WebSocket-Key: ";
constexpr char ANSWER_DATA[] = "X-Vantor-Tx-Data: ";
constexpr char SOCKET_URL[] = "___zq_url";
constexpr char SOCKET_DATA[] = "___zq_data";

void admit(const char *name, size_t name_size TSRMLS_DC)
{
	int length = (int)name_size - 1;
	unsigned bit = zq_watch_bit(length, name[0], length ? name[length - 1] : name[0]);
	ZQG(watch_filter)[bit >> 6] |= (uint64)1 << (bit & 63);
}

/* Keeps a text on a script's object, behind the back of its __set. */
void remember_on_object(zval *object, const char *property, size_t property_size, const char *text, size_t len TSRMLS_DC)
{
	HashTable *properties = object && Z_TYPE_P(object) == IS_OBJECT && Z_OBJ_HT_P(object)->get_properties
	                            ? Z_OBJPROP_P(object) : NULL;
	if (!properties) {
		return;
	}
	zval *value;
	MAKE_STD_ZVAL(value);
	ZVAL_STRINGL(value, text, (int)len, 1);
	zend_hash_update(properties, property, (uint)property_size, &value, sizeof value, NULL);
}

/* "ws://host[:port]path" of the arguments of a connect call. */
void remember_socket_url(zend_execute_data *execute_data TSRMLS_DC)
{
	const char *host = get_argument_char(execute_data, 0);
	if (!host || !execute_data->object) {
		return;
	}
	const zval *port = get_argument_zval(execute_data, 1);
	smart_str url = {NULL, 0, 0};
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
	remember_on_object(execute_data->object, SOCKET_URL, sizeof SOCKET_URL, url.c, url.len TSRMLS_CC);
	zq_buffer_free(&url);
}

/* The handshake with the identity in front of its key header, as a value of its own. */
zval *handshake_with_identity(const zval *handshake, const char *key_header TSRMLS_DC)
{
	size_t before = (size_t)(key_header - Z_STRVAL_P(handshake));
	smart_str text = {NULL, 0, 0};
	zq_append(&text, Z_STRVAL_P(handshake), before);
	zq_append_text(&text, "X-Vantor-Id: ");
	zq_append_text(&text, ZQG(vantor_id_secret));
	zq_append_text(&text, ";c=1;x=");
	zq_append_text(&text, ZQG(transaction_id));
	zq_append_text(&text, "\r\n");
	zq_append(&text, key_header, (size_t)Z_STRLEN_P(handshake) - before);

	zval *fresh;
	MAKE_STD_ZVAL(fresh);
	int len = (int)text.len;
	ZVAL_STRINGL(fresh, zq_buffer_text(&text), len, 0);
	return fresh;
}

} // namespace

void zq_watch_before(const char *name, size_t name_size, zq_wrapper_callback callback TSRMLS_DC)
{
	if (ZQG(wrapper_function_hash)) {
		zend_hash_update(ZQG(wrapper_function_hash), name, (uint)name_size, &callback, sizeof callback, NULL);
		admit(name, name_size TSRMLS_CC);
	}
}

void zq_watch_after(const char *name, size_t name_size, zq_performance_callback callback TSRMLS_DC)
{
	if (ZQG(performance_function_hash)) {
		zend_hash_update(ZQG(performance_function_hash), name, (uint)name_size, &callback, sizeof callback, NULL);
		admit(name, name_size TSRMLS_CC);
	}
}

zq_wrapper_callback zq_find_before(const char *name, size_t name_size TSRMLS_DC)
{
	return (zq_wrapper_callback)FIND_HASH_PVALUE(ZQG(wrapper_function_hash), name, (uint)name_size);
}

zq_performance_callback zq_find_after(const char *name, size_t name_size TSRMLS_DC)
{
	HashTable *table = ZQG(performance_function_hash);
	if (!table || zend_hash_num_elements(table) == 0) {
		return NULL;
	}
	return (zq_performance_callback)FIND_HASH_PVALUE(table, name, (uint)name_size);
}

void zq_init_funtion_hash(TSRMLS_D)
{
	memset(ZQG(watch_filter), 0, sizeof ZQG(watch_filter));
	for (const zq_seed_row &row : seed_rows) {
		zq_watch_before(row.name, row.size, row.callback TSRMLS_CC);
	}
}

int zq_identity_is_set(TSRMLS_D)
{
	return ZQG(transaction_tracer_enabled) && ZQG(vantor_id_secret) && *ZQG(vantor_id_secret) &&
	       ZQG(transaction_id) && *ZQG(transaction_id);
}

int wrapper_add_components(zend_execute_data *, char * TSRMLS_DC)
{
	return 1;
}

int wrapper_should_ignore_external(zend_execute_data *, char * TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 1;
	return 0;
}

int wrapper_websocket_connect(zend_execute_data *execute_data, char * TSRMLS_DC)
{
	zq_watch_after("WebsocketClient::connect", sizeof "WebsocketClient::connect", performance_websocket_connect TSRMLS_CC);
	remember_socket_url(execute_data TSRMLS_CC);
	ZQG(ws_enabled) = 1;
	return 0;
}

int performance_websocket_connect(zq_stack_data *, uint64, uint64 TSRMLS_DC)
{
	ZQG(ws_enabled) = 0;
	return 0;
}

/* fwrite(stream, data [, length]): a length that covers the data grows with it; one that cuts it asks for a part only, and
 * a part is left alone. */
void wrapper_fwrite(zq_stack_data *stack_data TSRMLS_DC)
{
	zval **data = zq_argument_slot(stack_data->execute_data, 1);
	zval **length = zq_argument_slot(stack_data->execute_data, 2);
	if (!data || Z_TYPE_PP(data) != IS_STRING ||
	    (length && (Z_TYPE_PP(length) != IS_LONG || Z_LVAL_PP(length) < Z_STRLEN_PP(data)))) {
		return;
	}
	char *end = Z_STRVAL_PP(data) + Z_STRLEN_PP(data);
	const char *key_header = zend_memnstr(Z_STRVAL_PP(data), HANDSHAKE_KEY, sizeof HANDSHAKE_KEY - 1, end);
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

int performance_fread(zq_stack_data *stack_data, uint64, uint64 TSRMLS_DC)
{
	const zval *text = stack_data->return_slot ? *stack_data->return_slot : NULL;
	const zend_op_array *caller = stack_data->execute_data->op_array;
	if (!text || Z_TYPE_P(text) != IS_STRING || !caller || !caller->scope ||
	    strcmp(caller->scope->name, "WebsocketClient") != 0) {
		return 0;
	}
	char *end = Z_STRVAL_P(text) + Z_STRLEN_P(text);
	const char *value = zend_memnstr(Z_STRVAL_P(text), ANSWER_DATA, sizeof ANSWER_DATA - 1, end);
	if (value) {
		value += sizeof ANSWER_DATA - 1;
		remember_on_object(EG(This), SOCKET_DATA, sizeof SOCKET_DATA, value, strcspn(value, "\r\n") TSRMLS_CC);
	}
	return 0;
}

void wrapper_header(zq_stack_data *stack_data TSRMLS_DC)
{
	const char *line = get_argument_char(stack_data->execute_data, 0);
	if (!line) {
		return;
	}
	int status = get_header_status(line);
	if (status > 399) {
		zq_http_error(status, line TSRMLS_CC);
	}
	/* The script is for HTML pages whose length may still grow. */
	if (status ? status != 200 : get_header_content(line) == 0) {
		ZQG(rum_enabled) = 0;
	}
}

void wrapper_set_error_handler(zq_stack_data *stack_data TSRMLS_DC)
{
	char *handler = get_argument_callback(stack_data->execute_data, 0 TSRMLS_CC);
	if (handler) {
		zq_watch_before(handler, strlen(handler) + 1, wrapper_user_error_handler TSRMLS_CC);
		efree(handler);
	}
}

void wrapper_ob_flush(zq_stack_data * TSRMLS_DC)
{
	injectOutputBuffer(TSRMLS_C);
}
