// The daemon's answers, taken apart and moved into a record, against a record that is written to as the bytes come. Two answers
// follow each other, since what the first left behind is where mistakes of the second show.
// Input: the length of the first answer in two bytes, then both.
// sources: ext/zqp_io_answer.cpp ext/zqp_helper_string.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp tests/fuzz/engine.cpp
#include <map>

#include "require.h"
#include "zqp_io.h"

namespace {

struct Model {
	uint64 stamp = 0;
	int64_t update_sec = 0;
	std::string app_id;
	bool has_app_id = false;
	std::map<std::string, std::string> settings;
};

const zq_setting_row *row_of(const std::string &key)
{
	for (const auto &row : zq_setting_table) {
		if (key == row.key) {
			return &row;
		}
	}
	return NULL;
}

std::string up_to_nul(const std::string &text) { return text.c_str(); }

void set(Model *model, const std::string &body)
{
	size_t equals = body.find('=');
	std::string key = body.substr(0, equals);
	const zq_setting_row *row = equals == std::string::npos ? NULL : row_of(key);
	std::string value = row ? up_to_nul(body.substr(equals + 1)) : "";
	if (row && (row->kind != ZQ_SETTING_TEXT || !value.empty())) {
		model->settings[key] = value;
	}
}

// False when the rest of the answer does not count.
bool renew(Model *model, const std::string &body, int64_t now)
{
	uint64 stamp;
	memcpy(&stamp, body.data(), sizeof stamp);
	model->update_sec = now;
	if (stamp == model->stamp) {
		return false;
	}
	model->stamp = stamp;
	model->has_app_id = false;
	std::erase_if(model->settings, [](const auto &setting) {
		const zq_setting_row *row = row_of(setting.first);
		return zq_setting_goes(*row) || row->kind == ZQ_SETTING_SECONDS;
	});
	return true;
}

void take(Model *model, std::string answer, int64_t now)
{
	while (answer.size() >= 4) {
		size_t len = (uint8_t)answer[1] << 16 | (uint8_t)answer[2] << 8 | (uint8_t)answer[3];
		if (4 + len > answer.size()) {
			return;
		}
		int type = answer[0];
		std::string body = answer.substr(4, len);
		answer.erase(0, 4 + len);
		if (type == ZQ_RE_STAMP && len == 8 && !renew(model, body, now)) {
			return;
		}
		if (type == ZQ_RE_APP_ID) {
			model->app_id = up_to_nul(body);
			model->has_app_id = true;
		} else if (type == ZQ_RE_CONFIG) {
			set(model, body);
		}
	}
}

void compare_text(const char *found, const std::string *expected)
{
	REQUIRE(!found == !expected);
	REQUIRE(!found || *expected == found);
}

void compare(const app_cfg_info &rec, const Model &model)
{
	REQUIRE(rec.daemon_stamp == model.stamp && rec.update_sec == model.update_sec);
	compare_text(rec.app_id, model.has_app_id ? &model.app_id : NULL);
	for (const auto &row : zq_setting_table) {
		auto found = model.settings.find(row.key);
		const std::string *value = found == model.settings.end() ? NULL : &found->second;
		const void *field = (const char *)&rec + row.offset;
		if (zq_setting_is_text(row)) {
			compare_text(*(char *const *)field, value);
		} else if (row.kind != ZQ_SETTING_SECONDS && row.kind != ZQ_SETTING_FRACTION) {
			int number = !value ? 0 : row.kind == ZQ_SETTING_SQL_MODE ? zq_record_type_to_int(value->c_str()) : zq_str_to_int(value->c_str());
			REQUIRE(*(const int *)field == number);
		} else if (row.kind == ZQ_SETTING_SECONDS) {
			REQUIRE(*(const uint64 *)field == (value ? strtoull(value->c_str(), NULL, 10) : 0));
		} else {
			double fraction = value ? strtod(value->c_str(), NULL) : 0;
			REQUIRE(memcmp(field, &fraction, sizeof fraction) == 0);
		}
	}
}

void answer(app_cfg_info *rec, Model *model, std::string_view bytes, int64_t now)
{
	std::unique_ptr<char[]> exact(new char[bytes.size()]);
	memcpy(exact.get(), bytes.data(), bytes.size());
	zq_config_answer parsed;
	zq_parse_config_answer(&parsed, exact.get(), bytes.size(), rec->daemon_stamp);
	exact.reset(); // nothing may point into the answer
	zq_apply_config_answer(rec, &parsed, now);
	zq_free_config_answer(&parsed);
	take(model, std::string(bytes), now);
	compare(*rec, *model);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 2) {
		return -1;
	}
	std::string_view input((const char *)data + 2, size - 2);
	size_t first = std::min(input.size(), (size_t)(data[0] | data[1] << 8));
	app_cfg_info rec = {};
	Model model;
	answer(&rec, &model, input.substr(0, first), 1000);
	answer(&rec, &model, input.substr(first), 2000);
	free(rec.app_id);
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			free(*(char **)((char *)&rec + row.offset));
		}
	}
	return 0;
}
