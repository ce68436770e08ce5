/* The settings of php.ini: a table of names, defaults and rights, what a change at run time does, reading one by name.
 */
#include "zqp_text.h"
#include "zqprof_settings.h"

const char *zq_ini_str(const char *skey, const char *default_value)
{
	/* The engine wants the key's size with its NUL, and gives "" for a setting without a value. */
	char *value = zend_ini_string((char *)skey, (uint)strlen(skey) + 1, 0);
	return value && *value ? value : default_value;
}

const char *zq_ini_level(const char *skey)
{
	char *value = zend_ini_string_ex((char *)skey, (uint)strlen(skey) + 1, 0, NULL);
	return value ? value : "info";
}

int zq_ini_number(const char *skey)
{
	return (int)zend_ini_long((char *)skey, (uint)strlen(skey) + 1, 0);
}

int zq_runtime_path(char *path, size_t size, const char *file_name)
{
	return snprintf(path, size, "%s/log/quorbit/%s", zq_ini_str("zqs.runtime_root", "/var"), file_name);
}

/* The engine's signature of a change handler; all but value and stage are unused here. */
typedef int (*change_handler)(zend_ini_entry *, char *, uint, void *, void *, void *, int TSRMLS_DC);

/* A script changed a trace setting: the running request follows. At every other stage the settings are read when the
 * application's record is made. ini_restore() may bring a null value. */
template <int zq_app_config::*field>
static int follow_at_run_time(zend_ini_entry *, char *new_value, uint, void *, void *, void *, int stage TSRMLS_DC)
{
	if (stage == ZEND_INI_STAGE_RUNTIME) {
		zq_globals(TSRMLS_C)->*field = zq_str_to_int(new_value);
	}
	return SUCCESS;
}

using globals = zq_app_config;
static constexpr change_handler update_action_tracer_enabled = follow_at_run_time<&globals::action_tracer_enabled>;
static constexpr change_handler update_action_tracer_action_threshold =
	follow_at_run_time<&globals::action_tracer_action_threshold>;
static constexpr change_handler update_action_tracer_slow_sql = follow_at_run_time<&globals::action_tracer_slow_sql>;
static constexpr change_handler update_action_tracer_slow_sql_threshold =
	follow_at_run_time<&globals::action_tracer_slow_sql_threshold>;
static constexpr change_handler update_action_tracer_explain_enabled =
	follow_at_run_time<&globals::action_tracer_explain_enabled>;
static constexpr change_handler update_action_tracer_explain_threshold =
	follow_at_run_time<&globals::action_tracer_explain_threshold>;

/* Only a command-line run may rename its application: in a web request the name decides whose configuration rules. */
static int update_zqs_app_name(zend_ini_entry *, char *new_value, uint, void *, void *, void *, int stage TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (g_cli && stage == ZEND_INI_STAGE_RUNTIME && g->request_open) {
		zq_replace_text(&g->app_name, estrdup(new_value ? new_value : ""));
	}
	return SUCCESS;
}

template <size_t N, size_t M>
static constexpr zend_ini_entry setting(
	const char (&name)[N], const char (&value)[M], int changeable, change_handler on_modify = nullptr)
{
	zend_ini_entry entry{};
	entry.modifiable = changeable;
	entry.name = const_cast<char *>(name);
	entry.name_length = N; /* 5.6 counts the NUL of names, not of values */
	entry.on_modify = on_modify;
	entry.value = const_cast<char *>(value);
	entry.value_length = M - 1;
	return entry;
}

static constexpr int PERDIR = ZEND_INI_PERDIR;
static constexpr int ALL = ZEND_INI_ALL;
static constexpr int SYSTEM = ZEND_INI_SYSTEM;

/* The engine reads up to the empty row. */
extern const zend_ini_entry zqprof_ini_entries[] = {
	setting("zqs.agent_enabled", "1", PERDIR),
	setting("zqs.license_key", "", PERDIR),
	setting("zqs.error_collector.enabled", "1", PERDIR),
	setting("zqs.action_tracer.record_sql", "raw", PERDIR),
	setting("zqs.action_tracer.log_sql", "0", PERDIR),
	setting("zqs.app_name", "PHP Application", ALL, update_zqs_app_name),
	setting("zqs.action_tracer.enabled", "1", ALL, update_action_tracer_enabled),
	setting(
		"zqs.action_tracer.action_threshold", ZQ_DEFAULT_ACTION_THRESHOLD, ALL, update_action_tracer_action_threshold),
	setting("zqs.action_tracer.slow_sql", "1", ALL, update_action_tracer_slow_sql),
	setting("zqs.action_tracer.slow_sql_threshold", "500", ALL, update_action_tracer_slow_sql_threshold),
	setting("zqs.action_tracer.explain_enabled", "0", ALL, update_action_tracer_explain_enabled),
	setting("zqs.action_tracer.explain_threshold", "500", ALL, update_action_tracer_explain_threshold),
	setting("zqs.prefix", "/usr", SYSTEM),
	setting("zqs.runtime_root", "/var", SYSTEM),
	setting("zqs.agent_log_level", "WARNING", SYSTEM),
	setting("zqs.auto_app_naming", "0", SYSTEM),
	setting("zqs.host", "", SYSTEM),
	setting("zqs.port", "", SYSTEM),
	setting("zqs.ssl", "1", SYSTEM),
	setting("zqs.audit_mode", "0", SYSTEM),
	setting("zqs.daemon_log_level", "INFO", SYSTEM),
	setting("zqs.proxy_host", "", SYSTEM),
	setting("zqs.proxy_port", "", SYSTEM),
	setting("zqs.proxy_user", "", SYSTEM),
	setting("zqs.proxy_password", "", SYSTEM),
	{},
};
