/* What the daemon decides per application: the fields, and the keys of its answer that set them. Free of the engine:
 * the daemon reads these very rows, so that it knows every key that an agent knows. A new setting is a field and a row.
 */
#ifndef ZQP_SETTING_TABLE_H
#define ZQP_SETTING_TABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

/* Texts are null when they are not given; who owns them is for the struct that holds these fields to say. */
struct zq_app_config {
	int agent_enabled;
	int auto_action_naming;
	char *urls_captured; /* regular expressions, one a line; null: every URI is monitored */
	int capture_params;
	char *ignored_params; /* names separated by "," */
	int error_collector_enabled;
	int error_collector_record_db_errors;
	char *error_collector_ignored_status_codes;
	int action_tracer_enabled;
	int action_tracer_action_threshold;      /* ms */
	int action_tracer_stack_trace_threshold; /* ms */
	int action_tracer_record_sql;            /* 0 off, 1 raw, 2 obfuscated */
	int action_tracer_log_sql;               /* has no key: only php.ini decides */
	int action_tracer_slow_sql;
	int action_tracer_slow_sql_threshold; /* ms */
	int action_tracer_explain_enabled;
	int action_tracer_explain_threshold; /* ms */
	char *naming_rules;
	char *web_action_uri_params_captured;
	int rum_enabled;
	char *rum_script;
	double rum_sample_ratio; /* 0..1 */
	char *vantor_id_secret;
	int transaction_tracer_enabled;
	uint64_t profile_end_time; /* s of the monotonic clock; 0: no thread profile */
	int resource_used;         /* percent, as the four below */
	int resource_enabled;
	int resource_low;
	int resource_high;
	int resource_safe;
	int details_wanted;     /* the packet ends with the details record */
	int uri_from_request;   /* CGI and FPM: the path that the client asked for is the URI */
	int radar_wanted;       /* what later versions of PHP will not run is noted */
	int traceparent_wanted; /* outgoing calls carry the W3C's trace context, and an incoming one counts; with details */
	char *traceparent_deny; /* hosts that get none, separated by ",", with "*" for any characters */
};

/* Of action_tracer_action_threshold, in ms: php.ini's default, and what 0 stands for. */
#define ZQ_DEFAULT_ACTION_THRESHOLD "2000"

/* How a setting's text becomes its field. */
enum zq_setting_kind {
	ZQ_SETTING_NUMBER,   /* zq_str_to_int */
	ZQ_SETTING_SQL_MODE, /* zq_record_type_to_int */
	ZQ_SETTING_TEXT,     /* copied unless empty */
	ZQ_SETTING_ANY_TEXT, /* copied, also when empty */
	ZQ_SETTING_FRACTION, /* decimal floating point */
	ZQ_SETTING_SECONDS,  /* decimal 64-bit */
	ZQ_SETTING_ASKED     /* zq_str_to_int; 0 when a renewed configuration does not ask again */
};

struct zq_setting_row {
	std::string_view key;
	zq_setting_kind kind;
	size_t offset;  /* of the field in zq_app_config */
	double initial; /* until an answer says otherwise; 0 for a text: none */
};

/* Initially what php.ini has under the same key. */
inline constexpr double ZQ_FROM_PHP_INI = -1;

template <zq_setting_kind kind, typename Field>
consteval zq_setting_row zq_setting_of(std::string_view key, size_t offset, double initial)
{
	constexpr bool is_text = kind == ZQ_SETTING_TEXT || kind == ZQ_SETTING_ANY_TEXT;
	using Wanted = std::conditional_t<is_text, char *,
		std::conditional_t<kind == ZQ_SETTING_FRACTION, double,
			std::conditional_t<kind == ZQ_SETTING_SECONDS, uint64_t, int>>>;
	static_assert(std::is_same_v<Field, Wanted>, "the field is not what a setting of this kind becomes");
	return {key, kind, offset, initial};
}
#define SETTING(key, kind, field, initial) \
	zq_setting_of<ZQ_SETTING_##kind, decltype(zq_app_config::field)>(key, offsetof(zq_app_config, field), initial)

inline constexpr auto zq_setting_table = std::to_array<zq_setting_row>({
	SETTING("zqs.agent_enabled", NUMBER, agent_enabled, ZQ_FROM_PHP_INI),
	SETTING("zqs.auto_action_naming", NUMBER, auto_action_naming, 1),
	SETTING("zqs.urls_captured", TEXT, urls_captured, 0),
	SETTING("zqs.capture_params", NUMBER, capture_params, 0),
	SETTING("zqs.ignored_params", TEXT, ignored_params, 0),
	SETTING("zqs.error_collector.enabled", NUMBER, error_collector_enabled, ZQ_FROM_PHP_INI),
	SETTING("zqs.error_collector.record_db_errors", NUMBER, error_collector_record_db_errors, 1),
	SETTING("zqs.error_collector.ignored_status_codes", TEXT, error_collector_ignored_status_codes, 0),
	SETTING("zqs.action_tracer.enabled", NUMBER, action_tracer_enabled, ZQ_FROM_PHP_INI),
	SETTING("zqs.action_tracer.action_threshold", NUMBER, action_tracer_action_threshold, ZQ_FROM_PHP_INI),
	SETTING("zqs.action_tracer.stack_trace_threshold", NUMBER, action_tracer_stack_trace_threshold, 50),
	SETTING("zqs.action_tracer.record_sql", SQL_MODE, action_tracer_record_sql, ZQ_FROM_PHP_INI),
	SETTING("zqs.action_tracer.slow_sql", NUMBER, action_tracer_slow_sql, ZQ_FROM_PHP_INI),
	SETTING("zqs.action_tracer.slow_sql_threshold", NUMBER, action_tracer_slow_sql_threshold, ZQ_FROM_PHP_INI),
	SETTING("zqs.action_tracer.explain_enabled", NUMBER, action_tracer_explain_enabled, ZQ_FROM_PHP_INI),
	SETTING("zqs.action_tracer.explain_threshold", NUMBER, action_tracer_explain_threshold, ZQ_FROM_PHP_INI),
	SETTING("zqs.naming.rules", TEXT, naming_rules, 0),
	SETTING("zqs.web_action_uri_params_captured", TEXT, web_action_uri_params_captured, 0),
	SETTING("zqs.rum.enabled", NUMBER, rum_enabled, 0),
	SETTING("zqs.rum.script", ANY_TEXT, rum_script, 0),
	SETTING("zqs.rum.sample_ratio", FRACTION, rum_sample_ratio, 1.0),
	SETTING("zqs.vantorIdSecret", ANY_TEXT, vantor_id_secret, 0),
	SETTING("zqs.transaction_tracer.enabled", NUMBER, transaction_tracer_enabled, 0),
	SETTING("zqs.resource.enabled", NUMBER, resource_enabled, 1),
	SETTING("zqs.resource.low", NUMBER, resource_low, 40),
	SETTING("zqs.resource.high", NUMBER, resource_high, 80),
	SETTING("zqs.resource.safe", NUMBER, resource_safe, 95),
	SETTING("zqs.profile_end_time", SECONDS, profile_end_time, 0),
	SETTING("zqs.resource.used", NUMBER, resource_used, 0),
	SETTING("zqs.details", ASKED, details_wanted, 0),
	SETTING("zqs.uri_from_request", ASKED, uri_from_request, 0),
	SETTING("zqs.radar", ASKED, radar_wanted, 0),
	SETTING("zqs.traceparent", ASKED, traceparent_wanted, 0),
	SETTING("zqs.traceparent_deny", TEXT, traceparent_deny, 0),
});
#undef SETTING

consteval bool zq_settings_differ()
{
	for (const zq_setting_row &row : zq_setting_table) {
		for (const zq_setting_row &other : zq_setting_table) {
			if (&row != &other && (row.key == other.key || row.offset == other.offset)) {
				return false;
			}
		}
	}
	return true;
}
static_assert(zq_settings_differ(), "a key or a field has two rows");

static inline bool zq_setting_is_text(const zq_setting_row &row)
{
	return row.kind == ZQ_SETTING_TEXT || row.kind == ZQ_SETTING_ANY_TEXT;
}

/* The field of a row. */
template <typename T>
static inline T &zq_setting_field(zq_app_config *config, const zq_setting_row &row)
{
	return *(T *)((char *)config + row.offset);
}

/* True when a new configuration that does not give the setting clears its field. */
static inline bool zq_setting_goes(const zq_setting_row &row)
{
	return zq_setting_is_text(row) || row.kind == ZQ_SETTING_ASKED;
}

#endif
