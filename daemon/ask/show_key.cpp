// quorbit show KIND:ID: one key of the sums.
#include "ask/command.h"

#include "base/clock.h"
#include "base/number.h"
#include "print/output.h"
#include "print/report.h"
#include "print/report_sums.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace quorbit {

namespace {

struct KeyId {
	SumKey key;
	int64_t id;
};

std::optional<KeyId> read_key_id(std::string_view text)
{
	const size_t colon = text.find(':');
	if (colon == std::string_view::npos) return std::nullopt;
	auto key = sum_key_of(text.substr(0, colon));
	int64_t id = 0;
	if (!key || !parse_number(text.substr(colon + 1), id) || id < 1) return std::nullopt;
	return KeyId{*key, id};
}

} // namespace

bool is_key_id(const std::string &text)
{
	return read_key_id(text).has_value();
}

int show_key(Reader &store, const std::string &text, const TimeRange &range, const std::string &host, bool json)
{
	const KeyId id = *read_key_id(text);
	auto report = [&] {
		const Working working("reading the sums");
		return key_report(store, id.key, id.id, range, host);
	}();
	if (!report) throw std::runtime_error("there is no " + text + " (it may not have been seen for long)");
	put(json ? json_text(key_json(*report), true) : key_text(*report, output_width(), wall_clock_ms()));
	return 0;
}

} // namespace quorbit
