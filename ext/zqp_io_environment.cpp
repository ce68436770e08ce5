/* Facts about the process that every configuration query carries: versions, server API, loaded extensions. Those that
 * need PHP calls are computed at the first query and kept for the life of the process. */
#include "zqp_io.h"

#include <dlfcn.h>
#include <initializer_list>

#include "zqp_lock.h"
#include "zqp_process_memory.h"

/* malloc'ed; published once under the process lock, unchanged afterwards and therefore read without it: by known(). */
static char *g_php_version, *g_apache_version, *g_apache_mpm, *g_plugin_list;

void zq_environment_init(void)
{
	g_php_version = g_apache_version = g_apache_mpm = g_plugin_list = NULL;
}

void zq_environment_final(void)
{
	free(g_php_version);
	free(g_apache_version);
	free(g_apache_mpm);
	free(g_plugin_list);
	zq_environment_init();
}

/* Calls a PHP function without arguments; the result is the caller's to zval_dtor when 1. */
static int call_function(const char *name, zval *result TSRMLS_DC)
{
	zval function;
	INIT_ZVAL(function);
	ZVAL_STRING(&function, name, 0);
	if (zq_call_user_function(EG(function_table), NULL, &function, result, 0, NULL TSRMLS_CC) == SUCCESS) {
		return 1;
	}
	zval_dtor(result);
	return 0;
}

/* The string that a PHP function returns, malloc'ed; null when it returns none. */
static char *text_of_call(const char *name TSRMLS_DC)
{
	zval result;
	char *text = NULL;
	if (call_function(name, &result TSRMLS_CC)) {
		text = Z_TYPE(result) == IS_STRING ? zq_strdup(Z_STRVAL(result)) : NULL;
		zval_dtor(&result);
	}
	return text;
}

static const char *mpm_word(const char *module)
{
	for (const char *word : {"prefork", "worker", "event"}) {
		if (strlen(module) == strlen(word) && zq_strncasecmp(module, word, strlen(word)) == 0) {
			return word;
		}
	}
	return NULL;
}

/* Walks a list of names that a PHP function returns; `take` returns 0 to stop. */
template <typename Take>
static void each_name(const char *function, Take take TSRMLS_DC)
{
	zval names, **entry;
	HashPosition pos;
	if (!call_function(function, &names TSRMLS_CC)) {
		return;
	}
	if (Z_TYPE(names) == IS_ARRAY) {
		HashTable *table = Z_ARRVAL(names);
		zend_hash_internal_pointer_reset_ex(table, &pos);
		while (zend_hash_get_current_data_ex(table, (void **)&entry, &pos) == SUCCESS) {
			if (Z_TYPE_PP(entry) == IS_STRING && !take(Z_STRVAL_PP(entry))) {
				break;
			}
			zend_hash_move_forward_ex(table, &pos);
		}
	}
	zval_dtor(&names);
}

static char *apache_mpm(TSRMLS_D)
{
	const char *found = NULL;
	each_name("apache_get_modules", [&found](const char *name) { return (found = mpm_word(name)) == NULL; } TSRMLS_CC);
	return found ? zq_strdup(found) : NULL;
}

static char *plugin_list(TSRMLS_D)
{
	smart_str list = {};
	each_name("get_loaded_extensions", [&list](const char *name) {
		const char *version = zend_get_module_version(name);
		zq_append_text(&list, list.len ? "," : "");
		zq_append_text(&list, name);
		if (version) {
			zq_append_char(&list, '(');
			zq_append_text(&list, version);
			zq_append_char(&list, ')');
		}
		return 1;
	} TSRMLS_CC);
	char *text = list.len ? zq_strdup(zq_buffer_text(&list)) : NULL;
	zq_buffer_free(&list);
	return text;
}

static const char *known(char *const *fact)
{
	return __atomic_load_n(fact, __ATOMIC_ACQUIRE);
}

/* Keeps the first value that any thread computed; the others' are freed. */
static void publish(char **fact, char *value)
{
	sigset_t saved;
	zq_lock(&saved);
	if (!*fact) {
		__atomic_store_n(fact, value, __ATOMIC_RELEASE);
		value = NULL;
	}
	zq_unlock(&saved);
	free(value);
}

static void compute_missing(TSRMLS_D)
{
	if (!known(&g_php_version)) {
		publish(&g_php_version, text_of_call("phpversion" TSRMLS_CC));
	}
	if (sapi_module.pretty_name && strstr(sapi_module.pretty_name, "Apache")) {
		if (!known(&g_apache_version)) {
			publish(&g_apache_version, text_of_call("apache_get_version" TSRMLS_CC));
		}
		if (!known(&g_apache_mpm)) {
			publish(&g_apache_mpm, apache_mpm(TSRMLS_C));
		}
	}
	if (!known(&g_plugin_list)) {
		publish(&g_plugin_list, plugin_list(TSRMLS_C));
	}
}

static void pack_when_known(smart_str *p, const char *item, const char *value)
{
	if (value) {
		pack_write_env(p, item, value);
	}
}

void zq_append_environment(smart_str *p TSRMLS_DC)
{
	Dl_info self;
	compute_missing(TSRMLS_C);
	pack_write_env(p, ZQ_MODULE_NAME, ZQ_PROTOCOL_VERSION);
	pack_when_known(p, "PHP Version", known(&g_php_version));
	pack_write_env(p, "Thread Safety", "yes");
	if (dladdr((void *)zq_append_environment, &self)) {
		pack_when_known(p, "module", self.dli_fname);
	}
	pack_write_env(p, "Server API", sapi_module.pretty_name);
	pack_when_known(p, "Apache Version", known(&g_apache_version));
	pack_when_known(p, "Apache MPM", known(&g_apache_mpm));
	pack_when_known(p, "Plugin List", known(&g_plugin_list));
}
