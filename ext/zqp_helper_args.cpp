/* Reading the intercepted call where the engine keeps it: the arguments lie below the word that counts them, and they
 * share their values with the script's variables. Nothing here converts, separates or copies a value in place. */
#include "zqp_helper.h"
#include "zqp_json.h"

zval **zq_argument_slot(zend_execute_data *data, int arg_seq)
{
	if (!data || !data->function_state.arguments || arg_seq < 0) {
		return NULL;
	}
	void **top = data->function_state.arguments;
	int count = (int)(zend_uintptr_t)*top;
	return arg_seq < count ? (zval **)top + (arg_seq - count) : NULL;
}

void zq_argument_replace(zval **slot, zval *fresh)
{
	zval *old = *slot;
	*slot = fresh; /* first: releasing the old value may run a destructor, which can look at the arguments */
	zval_ptr_dtor(&old);
}

int get_arguments_count(zend_execute_data *data)
{
	if (!data || !data->function_state.arguments) {
		return 0;
	}
	return (int)(zend_uintptr_t)*data->function_state.arguments;
}

zval *get_argument_zval(zend_execute_data *data, int arg_seq)
{
	zval **slot = zq_argument_slot(data, arg_seq);
	return slot ? *slot : NULL;
}

long get_argument_long(zend_execute_data *data, int arg_seq)
{
	zval *arg = get_argument_zval(data, arg_seq);
	return arg && Z_TYPE_P(arg) == IS_LONG ? Z_LVAL_P(arg) : 0;
}

char *get_argument_char(zend_execute_data *data, int arg_seq)
{
	zval *arg = get_argument_zval(data, arg_seq);
	return arg && Z_TYPE_P(arg) == IS_STRING ? Z_STRVAL_P(arg) : NULL;
}

char *get_reverse_argument_char(zend_execute_data *data, int arg_seq)
{
	if (arg_seq < 0) {
		return NULL;
	}
	return get_argument_char(data, get_arguments_count(data) - 1 - arg_seq);
}

/* "Class::method" of an array callable. The separator goes by position, whether or not the element before it had text.
 */
static char *callable_name_of_array(HashTable *parts TSRMLS_DC)
{
	smart_str name = {};
	int position = 0;
	HashPosition at;
	zval **part;
	for (zend_hash_internal_pointer_reset_ex(parts, &at);
		 zend_hash_get_current_data_ex(parts, (void **)&part, &at) == SUCCESS; zend_hash_move_forward_ex(parts, &at)) {
		if (position++ > 0) {
			zq_append(&name, "::", 2);
		}
		if (Z_TYPE_PP(part) == IS_STRING) {
			zq_append(&name, Z_STRVAL_PP(part), Z_STRLEN_PP(part));
		} else if (Z_TYPE_PP(part) == IS_OBJECT) {
			zq_append_text(&name, Z_OBJ_CLASS_NAME_P(*part));
		}
	}
	return position ? zq_buffer_text(&name) : NULL;
}

char *get_argument_callback(zend_execute_data *data, int arg_seq TSRMLS_DC)
{
	zval *arg = get_argument_zval(data, arg_seq);
	if (!arg) {
		return NULL;
	}
	if (Z_TYPE_P(arg) == IS_STRING) {
		return estrndup(Z_STRVAL_P(arg), Z_STRLEN_P(arg));
	}
	return Z_TYPE_P(arg) == IS_ARRAY ? callable_name_of_array(Z_ARRVAL_P(arg) TSRMLS_CC) : NULL;
}

void get_argument_array(zend_execute_data *data, smart_str *buf, int arg_seq TSRMLS_DC)
{
	zval *arg = get_argument_zval(data, arg_seq);
	if (arg) {
		zq_json_encode(buf, arg, 1 TSRMLS_CC);
	}
}

char *get_arguments(zend_execute_data *data TSRMLS_DC)
{
	smart_str text = {};
	int count = get_arguments_count(data);
	for (int i = 0; i < count; i++) {
		if (i > 0) {
			zq_append_char(&text, ',');
		}
		zval *arg = get_argument_zval(data, i);
		if (arg && Z_TYPE_P(arg) != IS_ARRAY && Z_TYPE_P(arg) != IS_OBJECT) {
			zq_json_encode(&text, arg, 1 TSRMLS_CC);
		}
	}
	if (!text.len) {
		zq_buffer_free(&text);
		return NULL;
	}
	return zq_buffer_text(&text);
}

void *FIND_HASH_PVALUE(HashTable *ht, const char *key, uint key_size)
{
	void **data;
	if (!ht || !key || zend_hash_find(ht, key, key_size, (void **)&data) != SUCCESS) {
		return NULL;
	}
	return *data;
}

zval *FIND_HASH_ZVALUE(HashTable *ht, const char *key, uint key_size)
{
	return (zval *)FIND_HASH_PVALUE(ht, key, key_size); /* tables of values hold zval pointers */
}

const char *zq_server_text(const char *key, uint key_size, ulong key_hash TSRMLS_DC)
{
	const zval *server = PG(http_globals)[TRACK_VARS_SERVER];
	zval **value;
	if (!server || Z_TYPE_P(server) != IS_ARRAY ||
		zend_hash_quick_find(Z_ARRVAL_P(server), key, key_size, key_hash, (void **)&value) != SUCCESS) {
		return NULL;
	}
	return Z_TYPE_PP(value) == IS_STRING ? Z_STRVAL_PP(value) : NULL;
}

zval *GET_CONTEXT_HTTP_OPTION(php_stream_context *context, const char *option)
{
	zval **value;
	if (!context || !option || php_stream_context_get_option(context, "http", option, &value) != SUCCESS) {
		return NULL;
	}
	return *value;
}

char *get_hash_value_by_name(zval *hash, const char *search_name, uint search_size)
{
	if (!hash || Z_TYPE_P(hash) != IS_ARRAY || !search_name || !search_size) {
		return NULL;
	}
	for (Bucket *at = Z_ARRVAL_P(hash)->pListHead; at; at = at->pListNext) {
		if (at->nKeyLength != search_size || zq_strncasecmp(at->arKey, search_name, search_size - 1) != 0) {
			continue;
		}
		zval *value = *(zval **)at->pData;
		return Z_TYPE_P(value) == IS_STRING ? Z_STRVAL_P(value) : NULL;
	}
	return NULL;
}

char *get_server_key(const char *key)
{
	const size_t prefix_len = sizeof("HTTP_") - 1, max_len = 127;
	if (!key) {
		return NULL;
	}
	size_t len = strnlen(key, max_len - prefix_len);
	char *name = (char *)emalloc(prefix_len + len + 1);
	memcpy(name, "HTTP_", prefix_len);
	for (size_t i = 0; i < len; i++) {
		char ch = zq_ascii_upper(key[i]);
		int plain = (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9');
		name[prefix_len + i] = plain ? ch : '_';
	}
	name[prefix_len + len] = '\0';
	return name;
}
