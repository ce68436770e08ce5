/* Taking the daemon's configuration answer apart, and moving it into an application's record. The bytes come from
 * another process and are trusted in nothing: every length is checked before it is used. */
#include "zqp_io.h"

#include "zqp_debug.h"
#include "zqp_process_memory.h"

template <size_t N>
static constexpr zq_setting_row row(const char (&key)[N], zq_setting_kind kind, size_t offset)
{
	return {key, N - 1, zq_name_hash(key), kind, offset};
}
#define FIELD(name) offsetof(app_cfg_info, name)

extern constexpr zq_setting_row zq_setting_table[ZQ_SETTING_ROWS] = {
	row("zqs.agent_enabled", ZQ_SETTING_NUMBER, FIELD(agent_enabled)),
	row("zqs.auto_action_naming", ZQ_SETTING_NUMBER, FIELD(auto_action_naming)),
	row("zqs.urls_captured", ZQ_SETTING_TEXT, FIELD(urls_captured)),
	row("zqs.capture_params", ZQ_SETTING_NUMBER, FIELD(capture_params)),
	row("zqs.ignored_params", ZQ_SETTING_TEXT, FIELD(ignored_params)),
	row("zqs.error_collector.enabled", ZQ_SETTING_NUMBER, FIELD(error_collector_enabled)),
	row("zqs.error_collector.record_db_errors", ZQ_SETTING_NUMBER, FIELD(error_collector_record_db_errors)),
	row("zqs.error_collector.ignored_status_codes", ZQ_SETTING_TEXT, FIELD(error_collector_ignored_status_codes)),
	row("zqs.action_tracer.enabled", ZQ_SETTING_NUMBER, FIELD(action_tracer_enabled)),
	row("zqs.action_tracer.action_threshold", ZQ_SETTING_NUMBER, FIELD(action_tracer_action_threshold)),
	row("zqs.action_tracer.stack_trace_threshold", ZQ_SETTING_NUMBER, FIELD(action_tracer_stack_trace_threshold)),
	row("zqs.action_tracer.record_sql", ZQ_SETTING_SQL_MODE, FIELD(action_tracer_record_sql)),
	row("zqs.action_tracer.slow_sql", ZQ_SETTING_NUMBER, FIELD(action_tracer_slow_sql)),
	row("zqs.action_tracer.slow_sql_threshold", ZQ_SETTING_NUMBER, FIELD(action_tracer_slow_sql_threshold)),
	row("zqs.action_tracer.explain_enabled", ZQ_SETTING_NUMBER, FIELD(action_tracer_explain_enabled)),
	row("zqs.action_tracer.explain_threshold", ZQ_SETTING_NUMBER, FIELD(action_tracer_explain_threshold)),
	row("zqs.naming.rules", ZQ_SETTING_TEXT, FIELD(naming_rules)),
	row("zqs.web_action_uri_params_captured", ZQ_SETTING_TEXT, FIELD(web_action_uri_params_captured)),
	row("zqs.rum.enabled", ZQ_SETTING_NUMBER, FIELD(rum_enabled)),
	row("zqs.rum.script", ZQ_SETTING_ANY_TEXT, FIELD(rum_script)),
	row("zqs.rum.sample_ratio", ZQ_SETTING_FRACTION, FIELD(rum_sample_ratio)),
	row("zqs.vantorIdSecret", ZQ_SETTING_ANY_TEXT, FIELD(vantor_id_secret)),
	row("zqs.transaction_tracer.enabled", ZQ_SETTING_NUMBER, FIELD(transaction_tracer_enabled)),
	row("zqs.resource.enabled", ZQ_SETTING_NUMBER, FIELD(resource_enabled)),
	row("zqs.resource.low", ZQ_SETTING_NUMBER, FIELD(resource_low)),
	row("zqs.resource.high", ZQ_SETTING_NUMBER, FIELD(resource_high)),
	row("zqs.resource.safe", ZQ_SETTING_NUMBER, FIELD(resource_safe)),
	row("zqs.profile_end_time", ZQ_SETTING_SECONDS, FIELD(profile_end_time)),
	row("zqs.resource.used", ZQ_SETTING_NUMBER, FIELD(resource_used)),
};
#undef FIELD

template <typename T>
static T &field_of(app_cfg_info *rec, const zq_setting_row &row)
{
	return *(T *)((char *)rec + row.offset);
}

static int row_index_of(const char *key, size_t key_len)
{
	uint64 hash = zq_name_hash(key, key_len);
	for (int i = 0; i < ZQ_SETTING_ROWS; i++) {
		const zq_setting_row &row = zq_setting_table[i];
		if (row.key_hash == hash && row.key_len == key_len && memcmp(row.key, key, key_len) == 0) {
			return i;
		}
	}
	return -1;
}

/* Takes over `value` (malloc'ed) or frees it. */
static void set_value(zq_config_answer *answer, int index, char *value)
{
	const zq_setting_row &row = zq_setting_table[index];
	app_cfg_info *values = &answer->values;
	switch (row.kind) {
	case ZQ_SETTING_NUMBER: field_of<int>(values, row) = zq_str_to_int(value); break;
	case ZQ_SETTING_SQL_MODE: field_of<int>(values, row) = zq_record_type_to_int(value); break;
	case ZQ_SETTING_FRACTION:
		field_of<double>(values, row) = zend_strtod(value, NULL); /* libc's follows the script's locale */
		break;
	case ZQ_SETTING_SECONDS: field_of<uint64>(values, row) = strtoull(value, NULL, 10); break;
	case ZQ_SETTING_TEXT:
	case ZQ_SETTING_ANY_TEXT:
		if (row.kind == ZQ_SETTING_TEXT && !*value) {
			break;
		}
		free(field_of<char *>(values, row));
		field_of<char *>(values, row) = value;
		answer->given |= 1u << index;
		return;
	}
	if (!zq_setting_is_text(&row)) {
		answer->given |= 1u << index;
	}
	free(value);
}

static void take_setting(zq_config_answer *answer, const char *body, size_t len)
{
	const char *equals = (const char *)memchr(body, '=', len);
	int index = equals ? row_index_of(body, (size_t)(equals - body)) : -1;
	if (index >= 0) {
		char *value = zq_strndup(equals + 1, len - (size_t)(equals + 1 - body));
		if (value) {
			set_value(answer, index, value);
		}
	}
}

/* A new configuration replaces the old one whole: texts and the profile that came before its stamp go as well. */
static void take_stamp(zq_config_answer *answer, const char *body, uint64 known_stamp)
{
	uint64 stamp;
	memcpy(&stamp, body, sizeof(stamp)); /* the host's byte order */
	answer->stamped = 1;
	if (stamp == (answer->renewed ? answer->values.daemon_stamp : known_stamp)) {
		answer->newest = 1;
		return;
	}
	zq_free_config_answer(answer);
	for (int i = 0; i < ZQ_SETTING_ROWS; i++) {
		if (zq_setting_is_text(&zq_setting_table[i]) || zq_setting_table[i].kind == ZQ_SETTING_SECONDS) {
			answer->given &= ~(1u << i);
		}
	}
	answer->values.daemon_stamp = stamp;
	answer->renewed = 1;
}

static void take_app_id(zq_config_answer *answer, const char *body, size_t len)
{
	free(answer->values.app_id);
	answer->values.app_id = zq_strndup(body, len);
	if (!answer->values.app_id) {
		fputs("Out of memory\n", stderr);
		exit(1);
	}
}

void zq_parse_config_answer(zq_config_answer *answer, const char *data, size_t len, uint64 known_stamp)
{
	memset(answer, 0, sizeof(*answer));
	while (len >= 4 && !answer->newest) {
		const unsigned char *header = (const unsigned char *)data;
		size_t body_len = ((size_t)header[1] << 16) | ((size_t)header[2] << 8) | header[3];
		const char *body = data + 4;
		if (body_len > len - 4) {
			return;
		}
		if (header[0] == ZQ_RE_STAMP && body_len == sizeof(uint64)) {
			take_stamp(answer, body, known_stamp);
		} else if (header[0] == ZQ_RE_APP_ID) {
			take_app_id(answer, body, body_len);
		} else if (header[0] == ZQ_RE_CONFIG) {
			take_setting(answer, body, body_len);
		}
		data += 4 + body_len;
		len -= 4 + body_len;
	}
}

static void move_text(char **to, char **from)
{
	free(*to);
	*to = *from;
	*from = NULL;
}

static void apply_row(app_cfg_info *rec, zq_config_answer *answer, int index)
{
	const zq_setting_row &row = zq_setting_table[index];
	switch (row.kind) {
	case ZQ_SETTING_TEXT:
	case ZQ_SETTING_ANY_TEXT: move_text(&field_of<char *>(rec, row), &field_of<char *>(&answer->values, row)); break;
	case ZQ_SETTING_FRACTION: field_of<double>(rec, row) = field_of<double>(&answer->values, row); break;
	case ZQ_SETTING_SECONDS: field_of<uint64>(rec, row) = field_of<uint64>(&answer->values, row); break;
	case ZQ_SETTING_NUMBER:
	case ZQ_SETTING_SQL_MODE: field_of<int>(rec, row) = field_of<int>(&answer->values, row); break;
	}
}

void zq_apply_config_answer(app_cfg_info *rec, zq_config_answer *answer, int64_t now)
{
	if (answer->stamped) {
		rec->update_sec = now;
	}
	if (answer->renewed) {
		rec->daemon_stamp = answer->values.daemon_stamp;
		rec->profile_end_time = 0;
	}
	if (answer->renewed || answer->values.app_id) {
		move_text(&rec->app_id, &answer->values.app_id);
	}
	for (int i = 0; i < ZQ_SETTING_ROWS; i++) {
		if ((answer->given >> i & 1) || (answer->renewed && zq_setting_is_text(&zq_setting_table[i]))) {
			apply_row(rec, answer, i); /* a text that a renewed configuration does not give is null here */
		}
	}
}

void zq_free_config_answer(zq_config_answer *answer)
{
	free(answer->values.app_id);
	answer->values.app_id = NULL;
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(&row)) {
			free(field_of<char *>(&answer->values, row));
			field_of<char *>(&answer->values, row) = NULL;
		}
	}
}
