/* The two tables of watched user functions, the names in them from the start of a request and those that a script
 * gives, and the callbacks that are too small for a file of their own. */
#include "zqp_debug.h"
#include "zqp_exception.h"
#include "zqp_name_table.h"
#include "zqp_rum.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_framework.h"
#include "zqp_wrapper_nosql.h"

namespace {

struct zq_seed_row {
	const char *name;
	uint size; /* counts the NUL */
	zq_wrapper_callback callback;
	template <size_t N>
	consteval zq_seed_row(const char (&text)[N], zq_wrapper_callback wrapper) : name(text), size(N), callback(wrapper)
	{
	}
};

/* What reveals a library; the callback then adds the names that matter for it. */
constexpr zq_seed_row seed_rows[] = {
	{"Thrift\\Protocol\\TBinaryProtocol::writeMessageBegin", wrapper_thrift_protocol_writemessagebegin},
	{"Thrift\\Transport\\TSocket::__construct", wrapper_thrift_transport_construct},
	{"Thrift\\Transport\\THttpClient::__construct", wrapper_thrift_transport_construct},
	{"Snoopy::_httprequest", wrapper_snoopy_httprequest},
	{"soap_transport_http::send", wrapper_nusoap_send},
	{"Predis\\Autoloader::register", wrapper_predis_autoloader_register},
	{"Predis\\Client::__construct", wrapper_predis_autoloader_register},
	{"WebsocketClient::connect", wrapper_websocket_connect},
};

void admit(const char *name TSRMLS_DC)
{
	const char *colons = strstr(name, "::");
	uint64 key = colons ? zq_watch_key(name, (int)(colons - name), colons + 2) : zq_watch_key(NULL, 0, name);
	unsigned bit = zq_watch_bit(key);
	ZQG(watch_filter)[bit >> 6] |= (uint64)1 << (bit & 63);
}

/* Names may be given from the global namespace on: with a leading backslash, which no table has. */
void drop_leading_backslash(const char **name, int *len)
{
	if (**name == '\\') {
		++*name;
		--*len;
	}
}

zend_class_entry *loaded_class(const char *name, int len TSRMLS_DC)
{
	zend_class_entry **found = NULL;
	drop_leading_backslash(&name, &len);
	char *lower = zend_str_tolower_dup(name, (uint)len);
	zend_hash_find(EG(class_table), lower, (uint)len + 1, (void **)&found);
	efree(lower);
	return found ? *found : NULL;
}

zend_function *declared_in(HashTable *functions, const char *name, int len)
{
	zend_function *found = NULL;
	drop_leading_backslash(&name, &len);
	char *lower = zend_str_tolower_dup(name, (uint)len);
	zend_hash_find(functions, lower, (uint)len + 1, (void **)&found);
	efree(lower);
	return found;
}

/* The function behind "name", "class::name", array(class, name) or array(object, name), as its declaration spells it
 * and without running an autoloader; null when it is none of these or not loaded. */
zend_function *named_function(zval *callable TSRMLS_DC)
{
	if (Z_TYPE_P(callable) == IS_STRING) {
		char *name = Z_STRVAL_P(callable), *colons = strstr(name, "::");
		if (!*name) {
			return NULL; /* made by create_function(): a NUL and more here, but one name for all of them in their calls
						  */
		}
		if (!colons) {
			return declared_in(EG(function_table), name, Z_STRLEN_P(callable));
		}
		zend_class_entry *ce = loaded_class(name, (int)(colons - name) TSRMLS_CC);
		return ce ? declared_in(&ce->function_table, colons + 2, (int)strlen(colons + 2)) : NULL;
	}
	zval **owner, **method;
	if (Z_TYPE_P(callable) != IS_ARRAY || zend_hash_index_find(Z_ARRVAL_P(callable), 0, (void **)&owner) != SUCCESS ||
		zend_hash_index_find(Z_ARRVAL_P(callable), 1, (void **)&method) != SUCCESS || Z_TYPE_PP(method) != IS_STRING) {
		return NULL;
	}
	zend_class_entry *ce = Z_TYPE_PP(owner) == IS_OBJECT && Z_OBJ_HT_PP(owner)->get_class_entry ? Z_OBJCE_PP(owner)
		: Z_TYPE_PP(owner) == IS_STRING ? loaded_class(Z_STRVAL_PP(owner), Z_STRLEN_PP(owner) TSRMLS_CC)
										: NULL;
	return ce ? declared_in(&ce->function_table, Z_STRVAL_PP(method), Z_STRLEN_PP(method)) : NULL;
}

/* Calls are recognised by the name that their declaration gives them: a method by the class that declares it. */
char *full_name_of_callback(zend_execute_data *data, int arg_seq TSRMLS_DC)
{
	zval *callable = get_argument_zval(data, arg_seq);
	zend_function *function = callable ? named_function(callable TSRMLS_CC) : NULL;
	if (!function) {
		return get_argument_callback(data, arg_seq TSRMLS_CC);
	}
	char *name = NULL;
	zend_class_entry *scope = function->common.scope;
	spprintf(&name, 0, "%s%s%s", scope ? scope->name : "", scope ? "::" : "", function->common.function_name);
	return name;
}

} // namespace

void zq_watch_before(const char *name, size_t name_size, zq_wrapper_callback callback TSRMLS_DC)
{
	if (ZQG(wrapper_function_hash)) {
		zend_hash_update(ZQG(wrapper_function_hash), name, (uint)name_size, &callback, sizeof callback, NULL);
		admit(name TSRMLS_CC);
	}
}

void zq_watch_after(const char *name, size_t name_size, zq_performance_callback callback TSRMLS_DC)
{
	if (ZQG(performance_function_hash)) {
		zend_hash_update(ZQG(performance_function_hash), name, (uint)name_size, &callback, sizeof callback, NULL);
		admit(name TSRMLS_CC);
	}
}

void zq_watch_callback(zend_execute_data *data, int arg_seq, zq_wrapper_callback callback TSRMLS_DC)
{
	char *name = full_name_of_callback(data, arg_seq TSRMLS_CC);
	if (name && *name) {
		zq_watch_before(name, strlen(name) + 1, callback TSRMLS_CC);
	}
	if (name) {
		efree(name);
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
	zq_watch_frameworks(TSRMLS_C);
	for (const zq_seed_row &row : seed_rows) {
		zq_watch_before(row.name, row.size, row.callback TSRMLS_CC);
	}
}

int zq_identity_is_set(TSRMLS_D)
{
	return ZQG(transaction_tracer_enabled) && ZQG(vantor_id_secret) && *ZQG(vantor_id_secret) && ZQG(transaction_id) &&
		*ZQG(transaction_id);
}

int wrapper_add_components(zend_execute_data *, char *TSRMLS_DC)
{
	return 1;
}

int wrapper_should_ignore_external(zend_execute_data *, char *TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 1;
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
	zq_watch_callback(stack_data->execute_data, 0, wrapper_user_error_handler TSRMLS_CC);
}

void wrapper_ob_flush(zq_stack_data *TSRMLS_DC)
{
	injectOutputBuffer(TSRMLS_C);
}
