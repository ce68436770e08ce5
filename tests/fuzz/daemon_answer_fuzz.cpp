// The daemon's answers, taken apart and moved into a record. Two answers follow each other, since what the first left behind is
// where mistakes of the second show.
// Input: the length of the first answer in two bytes, then both.
// sources: ext/zqp_io_answer.cpp ext/zqp_helper_string.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp tests/fuzz/engine.cpp
#include "require.h"
#include "zqp_io.h"

namespace {

// Every text that the record holds is whole, and its own.
void check(const app_cfg_info &rec)
{
	read_whole(rec.app_id);
	for (const auto &row : zq_setting_table) {
		read_whole(zq_setting_is_text(row) ? *(char *const *)((const char *)&rec + row.offset) : NULL);
	}
}

void answer(app_cfg_info *rec, std::string_view bytes, int64_t now)
{
	std::unique_ptr<char[]> exact(new char[bytes.size()]);
	memcpy(exact.get(), bytes.data(), bytes.size());
	zq_config_answer parsed;
	zq_parse_config_answer(&parsed, exact.get(), bytes.size(), rec->daemon_stamp);
	exact.reset(); // nothing may point into the answer
	zq_apply_config_answer(rec, &parsed, now);
	zq_free_config_answer(&parsed);
	check(*rec);
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
	answer(&rec, input.substr(0, first), 1000);
	answer(&rec, input.substr(first), 2000);
	free(rec.app_id);
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			free(*(char **)((char *)&rec + row.offset));
		}
	}
	return 0;
}
