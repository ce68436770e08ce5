/* Stands in for client libraries that cannot be had for this engine: registers their function and class names, and does
 * what the text arguments of a call say. "slow:N" anywhere in one waits N milliseconds, "fail" makes the call warn and
 * return false, "throw" makes it throw; otherwise it returns true. A constructor keeps its text in the class's property,
 * and __toString does what that text says, or returns it. A name is a row of the tables below. With DOUBLES_NEED_NOBODY
 * in the environment it does not start, for want of an extension that does not exist. */
#include "php.h"
#include "zend_exceptions.h"
#include "ext/pdo/php_pdo_driver.h"
#include <unistd.h>

static int wants(zval *argument, const char *word, const char **behind)
{
	const char *found = Z_TYPE_P(argument) == IS_STRING ? strstr(Z_STRVAL_P(argument), word) : NULL;
	*behind = found ? found + strlen(word) : NULL;
	return found != NULL;
}

/* Does what the text says; 0 when that was to fail. */
static int obey(zval *text TSRMLS_DC)
{
	const char *behind;
	if (wants(text, "slow:", &behind)) {
		usleep(atoi(behind) * 1000);
	}
	if (wants(text, "throw", &behind)) {
		zend_throw_exception(NULL, "told to throw", 7 TSRMLS_CC);
		return 0;
	}
	if (wants(text, "fail", &behind)) {
		php_error_docref(NULL TSRMLS_CC, E_WARNING, "told to fail");
		return 0;
	}
	return 1;
}

PHP_FUNCTION(double_call)
{
	zval **arguments[8];
	int i, count = ZEND_NUM_ARGS() < 8 ? ZEND_NUM_ARGS() : 8;
	zend_get_parameters_array_ex(count, arguments);
	for (i = 0; i < count; i++) {
		if (!obey(*arguments[i] TSRMLS_CC)) {
			RETURN_FALSE;
		}
	}
	RETURN_TRUE;
}

/* Gives a PDO object a driver that does as its own and has another name. */
PHP_FUNCTION(double_driver)
{
	static pdo_driver_t driver;
	zval *db;
	if (zend_parse_parameters(ZEND_NUM_ARGS() TSRMLS_CC, "o", &db) == SUCCESS) {
		pdo_dbh_t *connection = (pdo_dbh_t *)zend_object_store_get_object(db TSRMLS_CC);
		driver = *connection->driver;
		driver.driver_name = "double";
		connection->driver = &driver;
	}
}

#define DOUBLE(name) ZEND_FENTRY(name, ZEND_FN(double_call), NULL, ZEND_ACC_PUBLIC)

static const zend_function_entry functions[] = {
	DOUBLE(oci_parse) DOUBLE(oci_execute) DOUBLE(sqlite_query) DOUBLE(sqlite_exec)
	DOUBLE(sqlite_unbuffered_query) PHP_FE(double_driver, NULL) PHP_FE_END
};

static const zend_function_entry sqlite_database[] = {
	DOUBLE(queryExec) DOUBLE(unbufferedQuery) DOUBLE(query) PHP_FE_END
};

PHP_FUNCTION(double_construct);
PHP_FUNCTION(double_text);

#define DOUBLE_CONSTRUCT ZEND_FENTRY(__construct, ZEND_FN(double_construct), NULL, ZEND_ACC_PUBLIC)
#define DOUBLE_TEXT ZEND_FENTRY(__toString, ZEND_FN(double_text), NULL, ZEND_ACC_PUBLIC)

static const zend_function_entry http_request[] = {
	DOUBLE_CONSTRUCT DOUBLE(send) PHP_FE_END
};

static const zend_function_entry memcached[] = {
	DOUBLE(get) DOUBLE(set) DOUBLE(getMulti) DOUBLE(deleteMultiByKey) DOUBLE(getStats) DOUBLE(_get) PHP_FE_END
};

static const zend_function_entry mongo_collection[] = {
	DOUBLE_CONSTRUCT DOUBLE_TEXT DOUBLE(find) DOUBLE(insert) DOUBLE(getName) PHP_FE_END
};

static const zend_function_entry mongo_database[] = {
	DOUBLE_CONSTRUCT DOUBLE_TEXT DOUBLE(execute) DOUBLE(command) PHP_FE_END
};

static const zend_function_entry mongo_manager[] = {
	DOUBLE(executeCommand) DOUBLE(executeQuery) DOUBLE(executeBulkWrite) DOUBLE(getServers) PHP_FE_END
};

static const struct {
	const char *name;
	const zend_function_entry *methods;
	const char *property; /* private, or null */
} classes[] = {
	{"SQLiteDatabase", sqlite_database, NULL},
	{"HttpRequest", http_request, "url"},
	{"Memcache", memcached, NULL},
	{"MemcachePool", memcached, NULL},
	{"Memcached", memcached, NULL},
	{"MongoCollection", mongo_collection, "name"},
	{"MongoDB", mongo_database, "name"},
	{"MongoDB\\Driver\\Manager", mongo_manager, NULL},
};

static zend_class_entry *registered[sizeof(classes) / sizeof(classes[0])];

/* The double that an object is of, also of a class of the script that extends it. */
static int double_of(zval *object TSRMLS_DC)
{
	int i = 0;
	while (!instanceof_function(Z_OBJCE_P(object), registered[i] TSRMLS_CC)) {
		i++;
	}
	return i;
}

PHP_FUNCTION(double_construct)
{
	char *text = "";
	int len = 0, i = double_of(getThis() TSRMLS_CC);
	if (zend_parse_parameters(ZEND_NUM_ARGS() TSRMLS_CC, "|s", &text, &len) == SUCCESS) {
		zend_update_property_stringl(registered[i], getThis(), classes[i].property, strlen(classes[i].property), text, len TSRMLS_CC);
	}
}

PHP_FUNCTION(double_text)
{
	int i = double_of(getThis() TSRMLS_CC);
	zval *text = zend_read_property(registered[i], getThis(), classes[i].property, strlen(classes[i].property), 1 TSRMLS_CC);
	if (!obey(text TSRMLS_CC)) {
		RETURN_FALSE;
	}
	RETURN_ZVAL(text, 1, 0);
}

PHP_MINIT_FUNCTION(doubles)
{
	size_t i;
	for (i = 0; i < sizeof(classes) / sizeof(classes[0]); i++) {
		zend_class_entry entry;
		INIT_CLASS_ENTRY_EX(entry, classes[i].name, strlen(classes[i].name), classes[i].methods);
		registered[i] = zend_register_internal_class(&entry TSRMLS_CC);
		if (classes[i].property) {
			zend_declare_property_string(registered[i], classes[i].property, strlen(classes[i].property), "", ZEND_ACC_PRIVATE TSRMLS_CC);
		}
	}
	return SUCCESS;
}

static const zend_module_dep nobody[] = {ZEND_MOD_REQUIRED("nobody") ZEND_MOD_END};

zend_module_entry doubles_module_entry = {
	STANDARD_MODULE_HEADER_EX, NULL, NULL, "doubles", functions, PHP_MINIT(doubles), NULL, NULL, NULL, NULL, "1", STANDARD_MODULE_PROPERTIES
};

ZEND_DLEXPORT zend_module_entry *get_module(void)
{
	doubles_module_entry.deps = getenv("DOUBLES_NEED_NOBODY") ? nobody : NULL;
	return &doubles_module_entry;
}
