/* Taking the daemon's configuration answer apart, and moving it into an application's record. The bytes come from
 * another process and are trusted in nothing: every length is checked before it is used. */
#include "zqp_io.h"

#include "zqp_debug.h"
#include "zqp_process_memory.h"

static int row_index_of(std::string_view key)
{
	for (size_t i = 0; i < zq_setting_table.size(); i++) {
		if (zq_setting_table[i].key == key) {
			return (int)i;
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
	case ZQ_SETTING_NUMBER:
	case ZQ_SETTING_ASKED: zq_setting_field<int>(values, row) = zq_str_to_int(value); break;
	case ZQ_SETTING_SQL_MODE: zq_setting_field<int>(values, row) = zq_record_type_to_int(value); break;
	case ZQ_SETTING_FRACTION:
		zq_setting_field<double>(values, row) = zend_strtod(value, NULL); /* libc's follows the script's locale */
		break;
	case ZQ_SETTING_SECONDS: zq_setting_field<uint64>(values, row) = strtoull(value, NULL, 10); break;
	case ZQ_SETTING_TEXT:
	case ZQ_SETTING_ANY_TEXT:
		if (row.kind == ZQ_SETTING_TEXT && !*value) {
			break;
		}
		free(zq_setting_field<char *>(values, row));
		zq_setting_field<char *>(values, row) = value;
		answer->given[index] = true;
		return;
	}
	if (!zq_setting_is_text(row)) {
		answer->given[index] = true;
	}
	free(value);
}

static void take_setting(zq_config_answer *answer, const char *body, size_t len)
{
	const char *equals = (const char *)memchr(body, '=', len);
	int index = equals ? row_index_of({body, (size_t)(equals - body)}) : -1;
	if (index >= 0) {
		char *value = zq_strndup(equals + 1, len - (size_t)(equals + 1 - body));
		if (value) {
			set_value(answer, index, value);
		}
	}
}

/* A new configuration replaces all of the old one: texts and the profile that came before its stamp go as well. */
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
	for (size_t i = 0; i < zq_setting_table.size(); i++) {
		const zq_setting_row &row = zq_setting_table[i];
		if (zq_setting_goes(row) || row.kind == ZQ_SETTING_SECONDS) {
			answer->given[i] = false;
		}
		if (row.kind == ZQ_SETTING_ASKED) {
			zq_setting_field<int>(&answer->values, row) = 0;
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

static void apply_row(app_cfg_info *rec, zq_config_answer *answer, size_t index)
{
	const zq_setting_row &row = zq_setting_table[index];
	switch (row.kind) {
	case ZQ_SETTING_TEXT:
	case ZQ_SETTING_ANY_TEXT:
		move_text(&zq_setting_field<char *>(rec, row), &zq_setting_field<char *>(&answer->values, row));
		break;
	case ZQ_SETTING_FRACTION:
		zq_setting_field<double>(rec, row) = zq_setting_field<double>(&answer->values, row);
		break;
	case ZQ_SETTING_SECONDS: zq_setting_field<uint64>(rec, row) = zq_setting_field<uint64>(&answer->values, row); break;
	case ZQ_SETTING_NUMBER:
	case ZQ_SETTING_ASKED:
	case ZQ_SETTING_SQL_MODE: zq_setting_field<int>(rec, row) = zq_setting_field<int>(&answer->values, row); break;
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
	for (size_t i = 0; i < zq_setting_table.size(); i++) {
		if (answer->given[i] || (answer->renewed && zq_setting_goes(zq_setting_table[i]))) {
			apply_row(rec, answer, i); /* what a renewed configuration does not give is null or 0 here */
		}
	}
}

void zq_free_config_answer(zq_config_answer *answer)
{
	free(answer->values.app_id);
	answer->values.app_id = NULL;
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			free(zq_setting_field<char *>(&answer->values, row));
			zq_setting_field<char *>(&answer->values, row) = NULL;
		}
	}
}
