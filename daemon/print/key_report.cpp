// Asking for all that is told of a list of sums, or of one key.
#include "base/clock.h"
#include "print/report_sums.h"

#include <algorithm>

namespace quorbit {

namespace {

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

} // namespace

SumList sum_list(Reader &store, const SumQuestion &question)
{
	SumList list;
	list.question = question;
	list.answer = store.sums(question);
	const SumFilter &filter = question.filter;
	if (question.key == SumKey::error) list.releases = store.releases(filter.application);
	// One part of the whole range, however long it is.
	if (question.key == SumKey::host) list.machine = store.machine({filter.range, int64_t{1} << 53, filter.host});
	return list;
}

const ReleaseRow *new_since(const SumList &list, const KeyFacts &key)
{
	auto is_for = [&key](
					  const ReleaseRow &row) { return row.application.empty() || row.application == key.application; };
	auto last = std::find_if(list.releases.rbegin(), list.releases.rend(), is_for);
	if (last == list.releases.rend() || key.first_ms < last->at_ms / minute_ms * minute_ms) return nullptr;
	return &*last;
}

int64_t step_of(const TimeRange &range, int64_t points)
{
	const int64_t length_ms = range.until_ms - range.from_ms;
	if (length_ms > points * hour_ms / 2) return std::max(length_ms / points / hour_ms * hour_ms, hour_ms);
	return std::max(length_ms / points / minute_ms * minute_ms, minute_ms);
}

std::optional<KeyReport> key_report(
	Reader &store, SumKey key, int64_t id, const TimeRange &range, const std::string &host)
{
	auto facts = store.key(key, id);
	if (!facts) return std::nullopt;
	constexpr int64_t points = 24;
	SumQuestion question;
	question.key = key;
	question.filter.range = range;
	question.filter.id = id;
	question.filter.host = host;
	const SumAnswer answer = store.sums(question);
	KeyReport report{key, answer.rows.empty() ? SumRow{*facts, {}} : answer.rows[0], answer.range, {}, {}};
	report.series = store.series({key, question.filter, step_of(answer.range, points)});
	for (SumKey other : related_to(key)) {
		SumQuestion related;
		related.key = other;
		related.filter.range = range;
		related.filter.within = id;
		related.filter.host = host;
		report.related.emplace_back(other, store.sums(related));
	}
	return report;
}

} // namespace quorbit
