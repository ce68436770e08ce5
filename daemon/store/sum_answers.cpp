// From rows to answers.
#include "store/sum_source.h"

#include "store/sum_rows.h"

#include <algorithm>
#include <map>

namespace quorbit {

namespace {

// Sums of actions as those of their applications.
std::vector<SumRow> by_application(SumSource &source, const std::unordered_map<int64_t, SumRow> &rows)
{
	std::vector<int64_t> ids;
	for (const auto &[id, row] : rows) ids.push_back(id);
	const auto keys = source.keys(ids);
	std::map<std::string, SumRow> merged;
	for (const auto &[id, row] : rows) {
		auto key = keys.find(id);
		const std::string name = key == keys.end() ? other_keys : key->second.application;
		SumRow &to = merged[name];
		add_row(to, row);
		to.key.name = to.key.application = name;
	}
	std::vector<SumRow> found;
	for (auto &[name, row] : merged) found.push_back(std::move(row));
	return found;
}

// By keys, or by hosts in the order of their names.
std::vector<SumRow> rows_of(std::unordered_map<int64_t, SumRow> &rows, const std::map<std::string, int64_t> &hosts)
{
	std::vector<SumRow> found;
	if (hosts.empty()) {
		for (auto &[id, row] : rows) {
			row.key.id = id;
			found.push_back(std::move(row));
		}
	}
	for (const auto &[name, number] : hosts) {
		rows[number].key.name = name;
		found.push_back(std::move(rows[number]));
	}
	return found;
}

void fill_in_keys(SumSource &source, std::vector<SumRow> &rows)
{
	std::vector<int64_t> ids;
	for (const SumRow &row : rows) ids.push_back(row.key.id);
	auto keys = source.keys(ids);
	for (SumRow &row : rows) {
		auto key = keys.find(row.key.id);
		if (key != keys.end())
			row.key = key->second;
		else
			row.key.name = other_keys;
	}
}

// The examples of every part of the range: the slowest first, the newest first.
struct Candidates {
	std::vector<int64_t> slow, all;
};
Candidates candidates(SumSource &source, const SumPlan &plan, const SumQuestion &question)
{
	std::vector<std::pair<int64_t, int64_t>> slow; // with what they took
	Candidates found;
	source.each(plan, kind_of(question.key), question.filter, [&](const FoundSums &row) {
		Sums sums;
		std::string_view rest = row.sums;
		if (!sums.add_head(rest)) return;
		slow.emplace_back(sums.slowest_us, sums.slowest_id);
		found.all.insert(found.all.end(), {sums.slowest_id, sums.newest_id, sums.chance_id});
	});
	std::sort(slow.rbegin(), slow.rend());
	std::sort(found.all.rbegin(), found.all.rend());
	for (const auto &[us, id] : slow) found.slow.push_back(id);
	found.slow.insert(found.slow.end(), found.all.begin(), found.all.end());
	return found;
}

// Examples that are gone give way to others of the range that are there, where the row is the only one asked for, else
// to none.
void mend_examples(SumSource &source, const SumPlan &plan, const SumQuestion &question, std::vector<SumRow> &rows)
{
	std::vector<int64_t> ids;
	for (const SumRow &row : rows) ids.insert(ids.end(), {row.sums.slowest_id, row.sums.newest_id, row.sums.chance_id});
	auto there = source.actions_there(ids);
	const bool all_there = std::all_of(ids.begin(), ids.end(), [&](int64_t id) { return there.contains(id); });
	if (all_there) return;
	Candidates others;
	if (question.filter.id) {
		others = candidates(source, plan, question);
		there = source.actions_there(others.slow);
	}
	auto first_there = [&](const std::vector<int64_t> &list) {
		auto found = std::find_if(list.begin(), list.end(), [&](int64_t id) { return there.contains(id); });
		return found == list.end() ? 0 : *found;
	};
	for (SumRow &row : rows) {
		Sums &sums = row.sums;
		const bool has_chance = there.contains(sums.chance_id);
		if (!there.contains(sums.slowest_id)) sums.slowest_id = first_there(others.slow);
		if (!there.contains(sums.newest_id)) sums.newest_id = first_there(others.all);
		if (!has_chance) sums.chance_id = sums.newest_id;
	}
}

} // namespace

KeyKind kind_of(SumKey key)
{
	switch (key) {
	case SumKey::path: return KeyKind::path;
	case SumKey::query: return KeyKind::query;
	case SumKey::error: return KeyKind::error;
	case SumKey::external: return KeyKind::external;
	case SumKey::cache: return KeyKind::cache;
	case SumKey::component: return KeyKind::component;
	default: return KeyKind::action;
	}
}

SumAnswer answer_sums(SumSource &source, const SumQuestion &question)
{
	// A trend of some hours is made of minutes, a longer one of hours.
	constexpr int64_t most_minutes_ms = 3 * hour_ms;
	const KeptSums kept = source.kept();
	SumPlan plan(kept, question.filter.range, question.filter.within ? SumGrain::hours : SumGrain::fewest_rows);
	int64_t points = question.trend_points;
	const int64_t length_ms = plan.range().until_ms - plan.range().from_ms;
	if (points && !question.filter.within && length_ms <= most_minutes_ms)
		plan = SumPlan(kept, question.filter.range, SumGrain::minutes);
	else if (points)
		points = std::clamp(length_ms / hour_ms, int64_t{1}, points);
	SumAdder adder(plan.range(), points);
	std::map<std::string, int64_t> hosts; // numbered, when they are asked for
	source.each(plan, kind_of(question.key), question.filter, [&](const FoundSums &row) {
		int64_t id = row.key;
		if (question.key == SumKey::host)
			id = hosts.emplace(row.host, static_cast<int64_t>(hosts.size()) + 1).first->second;
		adder.add(id, row.at_ms, row.sums);
	});
	SumAnswer answer;
	answer.range = plan.range();
	for (const auto &[id, row] : adder.rows()) answer.all.add(row.sums);
	const bool of_keys = question.key != SumKey::application && question.key != SumKey::host;
	answer.rows =
		question.key == SumKey::application ? by_application(source, adder.rows()) : rows_of(adder.rows(), hosts);
	if (of_keys)
		order_rows(answer, question.order, question.most,
			[&source](std::vector<SumRow> &rows) { fill_in_keys(source, rows); });
	else
		order_rows(answer, question.order, question.most);
	mend_examples(source, plan, question, answer.rows);
	return answer;
}

std::vector<SeriesPoint> answer_series(SumSource &source, const SeriesQuestion &question)
{
	constexpr int64_t fewest_hours = 6; // fewer points say too little
	const int64_t step_ms = std::max(floor_to(question.step_ms, minute_ms), minute_ms);
	const bool hours = question.filter.within || step_ms % hour_ms == 0;
	const KeptSums kept = source.kept();
	SumPlan plan(kept, question.filter.range, hours ? SumGrain::hours : SumGrain::minutes);
	const bool is_long = plan.range().until_ms - plan.range().from_ms >= fewest_hours * hour_ms;
	if (!hours && is_long && source.has_too_many_minutes(plan, kind_of(question.key), question.filter))
		plan = SumPlan(kept, question.filter.range, SumGrain::hours);
	std::map<int64_t, SeriesPoint> points;
	source.each(plan, kind_of(question.key), question.filter, [&](const FoundSums &row) {
		const int64_t step = std::max(step_ms, row.unit_ms);
		SeriesPoint &point = points[floor_to(row.at_ms, step)];
		point.at_ms = floor_to(row.at_ms, step);
		point.step_ms = step;
		point.sums.add_bytes(row.sums);
	});
	std::vector<SeriesPoint> found;
	for (auto &[at_ms, point] : points) found.push_back(std::move(point));
	return found;
}

} // namespace quorbit
