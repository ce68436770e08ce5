/* Stands in for client libraries that cannot be had for this engine: registers their function and class names, and does
 * what the text arguments of a call say. "slow:N" anywhere in one waits N milliseconds, "fail" makes the call warn and
 * return false, "throw" makes it throw; otherwise it returns true. A name is a row of the tables below. */
#include "php.h"
#include "zend_exceptions.h"
#include <unistd.h>

static int wants(zval *argument, const char *word, const char **behind)
{
	const char *found = Z_TYPE_P(argument) == IS_STRING ? strstr(Z_STRVAL_P(argument), word) : NULL;
	*behind = found ? found + strlen(word) : NULL;
	return found != NULL;
}

PHP_FUNCTION(double_call)
{
	zval **arguments[8];
	const char *behind;
	int i, count = ZEND_NUM_ARGS() < 8 ? ZEND_NUM_ARGS() : 8;
	zend_get_parameters_array_ex(count, arguments);
	for (i = 0; i < count; i++) {
		if (wants(*arguments[i], "slow:", &behind)) {
			usleep(atoi(behind) * 1000);
		}
		if (wants(*arguments[i], "throw", &behind)) {
			zend_throw_exception(NULL, "told to throw", 7 TSRMLS_CC);
			return;
		}
		if (wants(*arguments[i], "fail", &behind)) {
			php_error_docref(NULL TSRMLS_CC, E_WARNING, "told to fail");
			RETURN_FALSE;
		}
	}
	RETURN_TRUE;
}

#define DOUBLE(name) ZEND_FENTRY(name, ZEND_FN(double_call), NULL, ZEND_ACC_PUBLIC)

static const zend_function_entry functions[] = {
	DOUBLE(oci_parse)
	DOUBLE(oci_execute)
	DOUBLE(sqlite_query)
	DOUBLE(sqlite_exec)
	DOUBLE(sqlite_unbuffered_query)
	PHP_FE_END
};

static const zend_function_entry sqlite_database[] = {
	DOUBLE(queryExec)
	DOUBLE(unbufferedQuery)
	DOUBLE(query)
	PHP_FE_END
};

/* Keeps its argument in the private property "url". */
PHP_FUNCTION(double_construct)
{
	char *url = "";
	int len = 0;
	if (zend_parse_parameters(ZEND_NUM_ARGS() TSRMLS_CC, "|s", &url, &len) == SUCCESS) {
		zend_class_entry *declaring = Z_OBJCE_P(getThis());
		while (declaring->parent) {
			declaring = declaring->parent;
		}
		zend_update_property_stringl(declaring, getThis(), "url", 3, url, len TSRMLS_CC);
	}
}

static const zend_function_entry http_request[] = {
	ZEND_FENTRY(__construct, ZEND_FN(double_construct), NULL, ZEND_ACC_PUBLIC)
	DOUBLE(send)
	PHP_FE_END
};

static const struct {
	const char *name;
	const zend_function_entry *methods;
	const char *property; /* private, or null */
} classes[] = {
	{"SQLiteDatabase", sqlite_database, NULL},
	{"HttpRequest", http_request, "url"},
};

PHP_MINIT_FUNCTION(doubles)
{
	size_t i;
	for (i = 0; i < sizeof(classes) / sizeof(classes[0]); i++) {
		zend_class_entry entry;
		INIT_CLASS_ENTRY_EX(entry, classes[i].name, strlen(classes[i].name), classes[i].methods);
		zend_class_entry *registered = zend_register_internal_class(&entry TSRMLS_CC);
		if (classes[i].property) {
			zend_declare_property_string(registered, classes[i].property, strlen(classes[i].property), "", ZEND_ACC_PRIVATE TSRMLS_CC);
		}
	}
	return SUCCESS;
}

zend_module_entry doubles_module_entry = {
	STANDARD_MODULE_HEADER, "doubles", functions, PHP_MINIT(doubles), NULL, NULL, NULL, NULL, "1", STANDARD_MODULE_PROPERTIES
};

ZEND_GET_MODULE(doubles)
