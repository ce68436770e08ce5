// quorbit show KIND:ID: one key of the sums.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "print/report_sums.h"

#include <charconv>
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
	auto [end, failure] = std::from_chars(text.data() + colon + 1, text.data() + text.size(), id);
	if (!key || failure != std::errc() || end != text.data() + text.size() || id < 1) return std::nullopt;
	return KeyId{*key, id};
}

// What is told of a key beside itself.
std::vector<SumKey> related_to(SumKey key)
{
	switch (key) {
	case SumKey::action: return {SumKey::query, SumKey::external, SumKey::cache, SumKey::error};
	case SumKey::query:
	case SumKey::error:
	case SumKey::external:
	case SumKey::cache: return {SumKey::action};
	default: return {};
	}
}

// Parts of a range that make a trend to look at.
int64_t step_of(const TimeRange &range)
{
	constexpr int64_t minute_ms = 60000, hour_ms = 3600000, points = 24;
	const int64_t length_ms = range.until_ms - range.from_ms;
	if (length_ms > points * hour_ms / 2) return std::max(length_ms / points / hour_ms * hour_ms, hour_ms);
	return std::max(length_ms / points / minute_ms * minute_ms, minute_ms);
}

} // namespace

bool is_key_id(const std::string &text)
{
	return read_key_id(text).has_value();
}

int show_key(Reader &store, const std::string &text, const TimeRange &range, bool json)
{
	const KeyId id = *read_key_id(text);
	auto facts = store.key(id.key, id.id);
	if (!facts) throw std::runtime_error("there is no " + text + " (it may not have been seen for long)");
	SumQuestion question;
	question.key = id.key;
	question.filter.range = range;
	question.filter.id = id.id;
	const SumAnswer answer = store.sums(question);
	KeyReport report{id.key, answer.rows.empty() ? SumRow{*facts, {}} : answer.rows[0], answer.range, {}, {}};
	report.series = store.series({id.key, question.filter, step_of(answer.range)});
	for (SumKey key : related_to(id.key)) {
		SumQuestion related;
		related.key = key;
		related.filter.range = range;
		related.filter.within = id.id;
		report.related.emplace_back(key, store.sums(related));
	}
	put(json ? json_text(key_json(report), true) : key_text(report, output_width(), wall_clock_ms()));
	return 0;
}

} // namespace quorbit
