/* The first name of a request, and the cleaning of paths that every name goes through. */
#include "zqp_naming.h"
#include "zqp_board.h"
#include "zqp_debug.h"
#include "zqp_json.h"
#include "zqp_lock.h"
#include "zqp_naming_uri.h"

/* The engine's buffer, as the naming of URIs wants it. */
static std::string_view zq_view(const smart_str *buf)
{
	return buf->c ? std::string_view(buf->c, buf->len) : std::string_view();
}

static void zq_release(smart_str *buf)
{
	zq_buffer_free(buf);
}

void zq_append_action(smart_str *action, const char *str)
{
	zq_append_clean_path(action, str);
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
	if (track != TRACK_VARS_SERVER) { /* visitors' arrays have "7" as a number */
		zval **value;
		int is_there = values && zend_symtable_find(values, name, (uint)strlen(name) + 1, (void **)&value) == SUCCESS;
		return is_there ? *value : NULL;
	}
	char *key = get_server_key(name);
	zval *value = FIND_HASH_ZVALUE(values, key, (uint)strlen(key) + 1);
	efree(key);
	return value;
}

static int track_of(enum zq_naming_source source)
{
	static const int tracks[] = {0, TRACK_VARS_GET, TRACK_VARS_SERVER, TRACK_VARS_POST, TRACK_VARS_COOKIE};
	return tracks[source];
}

/* ---- names by rule ---- */

/* What the rules ask for; `context` is the thread's engine context. */
static const char *rule_value(void *context, enum zq_naming_source source, const char *name)
{
	void ***tsrm_ls = (void ***)context;
	zval *value = request_value(track_of(source), name TSRMLS_CC);
	return value && Z_TYPE_P(value) == IS_STRING && Z_STRLEN_P(value) > 0 ? Z_STRVAL_P(value) : NULL;
}

/* Name by the configured rules, request memory; null when none applies. */
static char *name_by_rules(TSRMLS_D)
{
	zq_naming_request request = {zq_request_uri(TSRMLS_C), SG(request_info).request_method, rule_value, tsrm_ls};
	const char *invalid_at = NULL;
	char *volatile by_rule = NULL;
	volatile int bailed_out = 0;
	sigset_t saved;

	zq_hold_timers(&saved); /* the parser and the regular expressions use libc's heap */
	zend_try
	{
		by_rule = get_name_by_rules(ZQG(naming_rules), &request, &invalid_at);
	}
	zend_catch
	{
		bailed_out = 1;
	}
	zend_end_try();
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

/* ---- names by URI ---- */

/* The request's parameters. Any that it has takes part, but only texts and integers have a value. */
struct captured_params {
	void ***tsrm_ls;

	zval *find(enum zq_naming_source source, std::string_view name) const
	{
		char *text = estrndup(name.data(), (uint)name.size());
		zval *value = request_value(track_of(source), text TSRMLS_CC);
		efree(text);
		return value;
	}

	void append(smart_str *suffix, zval *value) const
	{
		if (Z_TYPE_P(value) == IS_LONG) {
			zq_append_long(suffix, Z_LVAL_P(value));
		} else if (Z_TYPE_P(value) == IS_STRING) {
			size_t len = (size_t)Z_STRLEN_P(value);
			json_escape_string(
				suffix, Z_STRVAL_P(value), len < ZQ_CAPTURED_VALUE_SIZE ? len : ZQ_CAPTURED_VALUE_SIZE, 0);
		}
	}
};

int get_request_params(char **results, const char *uri, int uri_len, const char *config TSRMLS_DC)
{
	smart_str suffix = {};
	zq_append_captured(&suffix, config, std::string_view(uri, (size_t)uri_len), captured_params{tsrm_ls});
	*results = suffix.len ? zq_buffer_text(&suffix) : NULL;
	return (int)suffix.len;
}

/* ---- the first name ---- */

void zq_set_action_name(char *name, int level TSRMLS_DC)
{
	name[strnlen(name, ZQ_NAME_SIZE)] = '\0';
	zq_replace_text(&ZQG(action_name), name);
	ZQG(action_name_level) = level;
	if (ZQG(board)) {
		zq_board_rename(ZQG(board), name);
	}
}

/* The script that the server runs; null when it does not tell. */
static const char *script_file(TSRMLS_D)
{
	request_array(TRACK_VARS_SERVER TSRMLS_CC);
	return ZQ_SERVER_TEXT("SCRIPT_FILENAME");
}

/* Clients choose paths. So that they cannot make names without end, a process gives these many; two of one hash count
 * once. */
static const unsigned most_path_names = 1000;
static const unsigned path_name_slots = 2048; /* a power of two */
static uint64 g_path_names[path_name_slots];  /* hashes, 0: free; behind the lock, as the two below */
static unsigned g_path_name_count;
static int g_more_paths_logged;

/* 1 when the name has been given before or is among the first. */
static int admit_path_name(std::string_view name)
{
	uint64 hash = zq_name_hash(name.data(), name.size());
	hash += !hash;
	unsigned at = (unsigned)(hash * 0x9E3779B97F4A7C15u >> 32) & (path_name_slots - 1);
	sigset_t saved;
	zq_lock(&saved);
	while (g_path_names[at] && g_path_names[at] != hash) {
		at = (at + 1) & (path_name_slots - 1);
	}
	int admitted = g_path_names[at] == hash || g_path_name_count < most_path_names;
	if (admitted && !g_path_names[at]) {
		g_path_names[at] = hash;
		g_path_name_count++;
	}
	int tell = !admitted && !g_more_paths_logged;
	g_more_paths_logged |= tell;
	zq_unlock(&saved);
	if (tell) {
		ZQ_LOG(ZQ_LOG_WARNING, "more than %u names made of paths in this process, further ones are %s", most_path_names,
			ZQ_MORE_PATHS);
	}
	return admitted;
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
	const char *uri = zq_request_uri(TSRMLS_C);
	zq_uri_naming naming = {uri ? uri : "", ZQG(auto_action_naming), NULL, ZQG(web_action_uri_params_captured)};
	naming.script = naming.automatic ? script_file(TSRMLS_C) : NULL;
	smart_str name = {};
	zq_append_uri_name(&name, naming, captured_params{tsrm_ls});
	if (ZQG(request_path) && zq_view(&name).starts_with("WebAction/URI/") && !admit_path_name(zq_view(&name))) {
		zq_buffer_free(&name);
		zq_append_text(&name, ZQ_MORE_PATHS);
	}
	zq_set_action_name(zq_buffer_text(&name), ZQ_NAME_URI TSRMLS_CC);
}
