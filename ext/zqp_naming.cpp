/* The first name of a request, and the cleaning of paths that every name goes through. */
#include "zqp_naming.h"
#include "zqp_debug.h"
#include "zqp_json.h"
#include "zqp_lock.h"
#include "zqp_naming_rules.h"

void zq_append_action(smart_str *action, const char *str)
{
	size_t length_before = action->len;
	int in_digits = 0;
	for (const char *at = str; *at; at++) {
		int is_digit = *at >= '0' && *at <= '9';
		if (*at == '/') {
			if (at != str) {
				zq_append(action, "%2F", 3);
			}
		} else if (is_digit && in_digits) {
			action->c[action->len - 1] = '*';
		} else {
			zq_append_char(action, *at);
		}
		in_digits = is_digit;
	}
	if (action->len == length_before) {
		zq_append(action, "index", 5);
	}
}

/* An array of the request by its engine index; null when there is none. */
static HashTable *request_array(int track TSRMLS_DC)
{
	if (track == TRACK_VARS_SERVER) {
		/* filled on first use under auto_globals_jit */
		zend_is_auto_global(ZEND_STRL("_SERVER") TSRMLS_CC);
	}
	zval *array = PG(http_globals)[track];
	return array && Z_TYPE_P(array) == IS_ARRAY ? Z_ARRVAL_P(array) : NULL;
}

static zval *request_value(int track, const char *name TSRMLS_DC)
{
	HashTable *values = request_array(track TSRMLS_CC);
	if (track != TRACK_VARS_SERVER) {
		return FIND_HASH_ZVALUE(values, name, (uint)strlen(name) + 1);
	}
	char *key = get_server_key(name);
	zval *value = FIND_HASH_ZVALUE(values, key, (uint)strlen(key) + 1);
	efree(key);
	return value;
}

/* ---- names by rule ---- */

/* What the rules ask for; `context` is the thread's engine context. */
static const char *rule_value(void *context, enum zq_naming_source source, const char *name)
{
	static const int tracks[] = {0, TRACK_VARS_GET, TRACK_VARS_SERVER, TRACK_VARS_POST, TRACK_VARS_COOKIE};
	void ***tsrm_ls = (void ***)context;
	zval *value = request_value(tracks[source], name TSRMLS_CC);
	return value && Z_TYPE_P(value) == IS_STRING && Z_STRLEN_P(value) > 0 ? Z_STRVAL_P(value) : NULL;
}

/* Name by the configured rules, request memory; null when none applies. */
static char *name_by_rules(TSRMLS_D)
{
	zq_naming_request request = {SG(request_info).request_uri, SG(request_info).request_method, rule_value, tsrm_ls};
	const char *invalid_at = NULL;
	char *volatile by_rule = NULL;
	volatile int bailed_out = 0;
	sigset_t saved;

	zq_hold_timers(&saved); /* the parser and the regular expressions use libc's heap */
	zend_try {
		by_rule = get_name_by_rules(ZQG(naming_rules), &request, &invalid_at);
	} zend_catch {
		bailed_out = 1;
	} zend_end_try();
	zq_allow_timers(&saved);

	if (bailed_out) {
		zend_bailout();
	}
	if (invalid_at) {
		ZQ_LOG(ZQ_LOG_ERROR, "naming json invalid at: %s", invalid_at);
	}
	char *name = by_rule ? estrdup(by_rule) : NULL;
	free(by_rule);
	return name;
}

/* ---- captured parameters ---- */

static void append_value(smart_str *suffix, zval *value)
{
	if (Z_TYPE_P(value) == IS_LONG) {
		zq_append_long(suffix, Z_LVAL_P(value));
	} else if (Z_TYPE_P(value) == IS_STRING && Z_STRLEN_P(value) > 0) {
		json_escape_string(suffix, Z_STRVAL_P(value), Z_STRLEN_P(value), 0);
	}
}

/* Appends those of one group's names that the request has. */
static void append_group(smart_str *suffix, const char *group, int track TSRMLS_DC)
{
	char **names = get_str_array(group, 3);
	for (char **name = names; names && *name; name++) {
		zval *value = request_value(track, *name TSRMLS_CC);
		if (!value) {
			continue;
		}
		zq_append_char(suffix, suffix->len ? '&' : '?');
		zq_append_text(suffix, *name);
		zq_append_char(suffix, '=');
		append_value(suffix, value);
	}
	free_str_array(names);
}

int get_request_params(char **results, const char *uri, int uri_len, const char *config TSRMLS_DC)
{
	static const int tracks[] = {TRACK_VARS_GET, TRACK_VARS_POST, TRACK_VARS_SERVER};
	*results = NULL;
	char **entries = get_str_array(config, 1);
	if (!entries) {
		return 0;
	}
	char **entry = entries;
	while (*entry && !(strlen(*entry) > (size_t)uri_len && (*entry)[uri_len] == ',' && !memcmp(*entry, uri, uri_len))) {
		entry++;
	}
	smart_str suffix = {NULL, 0, 0};
	if (*entry) {
		char **groups = get_str_array(*entry + uri_len + 1, 2);
		for (int i = 0; groups && i < 3 && groups[i]; i++) {
			append_group(&suffix, groups[i], tracks[i] TSRMLS_CC);
		}
		free_str_array(groups);
	}
	free_str_array(entries);
	if (suffix.len == 0) {
		return 0;
	}
	*results = zq_buffer_text(&suffix);
	return (int)suffix.len;
}

/* ---- the first name ---- */

void zq_set_action_name(char *name, int level TSRMLS_DC)
{
	if (ZQG(action_name)) {
		efree(ZQG(action_name));
	}
	ZQG(action_name) = name;
	ZQG(action_name_level) = level;
}

static void set_name(const char *prefix, const char *path TSRMLS_DC)
{
	smart_str name = {NULL, 0, 0};
	zq_append_text(&name, prefix);
	zq_append_action(&name, path);
	zq_set_action_name(zq_buffer_text(&name), ZQ_NAME_URI TSRMLS_CC);
}

/* Name of a request that does not name its script in the URI; 1 when the server told the script. */
static int set_name_from_script(TSRMLS_D)
{
	zval *file = FIND_HASH_ZVALUE(request_array(TRACK_VARS_SERVER TSRMLS_CC), ZEND_STRS("SCRIPT_FILENAME"));
	if (!file || Z_TYPE_P(file) != IS_STRING || Z_STRLEN_P(file) < 1) {
		return 0;
	}
	set_name("WebAction/PHP/", Z_STRVAL_P(file) TSRMLS_CC);
	return 1;
}

static void set_name_with_params(const char *uri TSRMLS_DC)
{
	char *params = NULL;
	int params_len = 0;
	if (ZQG(web_action_uri_params_captured)) {
		params_len = get_request_params(&params, uri, (int)strlen(uri), ZQG(web_action_uri_params_captured) TSRMLS_CC);
	}
	if (params_len < 1) {
		set_name("WebAction/URI/", uri TSRMLS_CC);
		return;
	}
	size_t size = strlen(uri) + (size_t)params_len + 1;
	char *joined = (char *)emalloc(size);
	snprintf(joined, size, "%s%s", uri, params);
	set_name("WebAction/URI/", joined TSRMLS_CC);
	efree(joined);
	efree(params);
}

void init_action_name(TSRMLS_D)
{
	if (ZQG(naming_rules)) {
		char *by_rule = name_by_rules(TSRMLS_C);
		if (by_rule) {
			ZQG(action_name) = by_rule;
			ZQG(action_name_level) = ZQ_NAME_FROZEN;
			return;
		}
	}
	char *uri = estrdup(SG(request_info).request_uri ? SG(request_info).request_uri : "");
	if (!ZQG(auto_action_naming)) {
		uri[strcspn(uri, "?")] = '\0';
		set_name_with_params(uri TSRMLS_CC);
	} else if (const char *script_end = zq_php_pos(uri, (int)strlen(uri))) {
		uri[script_end - uri] = '\0';
		set_name_with_params(uri TSRMLS_CC);
	} else if (!set_name_from_script(TSRMLS_C)) {
		set_name("WebAction/URI/", uri TSRMLS_CC);
	}
	efree(uri);
}
