/* The registry: two tables of watched user functions per request, which every recorder adds names to, and the callbacks
 * that they share. */
#include "zqp_wrapper.h"

namespace {

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
		zend_hash_update(ZQG(wrapper_function_hash), name, (uint)name_size, &callback, sizeof(callback), NULL);
		admit(name TSRMLS_CC);
	}
}

void zq_watch_after(const char *name, size_t name_size, zq_performance_callback callback TSRMLS_DC)
{
	if (ZQG(performance_function_hash)) {
		zend_hash_update(ZQG(performance_function_hash), name, (uint)name_size, &callback, sizeof(callback), NULL);
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
