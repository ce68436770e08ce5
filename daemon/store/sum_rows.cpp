// Adding up and ordering rows of sums.
#include "store/sum_rows.h"

#include "base/number.h"

#include <algorithm>
#include <numeric>
#include <tuple>
#include <utility>
#include <vector>

namespace quorbit {

namespace {

double rank_of(const Sums &sums, SumOrder order)
{
	switch (order) {
	case SumOrder::total: return static_cast<double>(sums.total_us);
	case SumOrder::count: return static_cast<double>(sums.count);
	case SumOrder::average:
		return sums.count ? static_cast<double>(sums.total_us) / static_cast<double>(sums.count) : 0;
	case SumOrder::p95: return static_cast<double>(sums.durations.percentile_us(0.95));
	case SumOrder::p99: return static_cast<double>(sums.durations.percentile_us(0.99));
	case SumOrder::errors: return static_cast<double>(sums.errors);
	case SumOrder::statements: return static_cast<double>(sums.statements);
	}
	return 0;
}

} // namespace

void SumAdder::add(int64_t id, int64_t at_ms, std::string_view bytes)
{
	SumRow &row = rows_[id];
	if (points_ == 0) {
		row.sums.add_bytes(bytes);
		return;
	}
	const Sums &sums = row.sums;
	const TrendPoint before{sums.count, sums.errors, sums.total_us};
	row.sums.add_bytes(bytes);
	row.trend.resize(static_cast<size_t>(points_));
	const int64_t whole = std::max(range_.until_ms - range_.from_ms, int64_t{1});
	auto at = std::clamp((at_ms - range_.from_ms) * points_ / whole, int64_t{0}, points_ - 1);
	TrendPoint &point = row.trend[static_cast<size_t>(at)];
	point.count += sums.count - before.count;
	point.errors += sums.errors - before.errors;
	point.total_us += sums.total_us - before.total_us;
}

void add_row(SumRow &to, const SumRow &from)
{
	to.sums.add(from.sums);
	to.trend.resize(std::max(to.trend.size(), from.trend.size()));
	for (size_t i = 0; i < from.trend.size(); i++) {
		add_bounded(to.trend[i].count, from.trend[i].count);
		add_bounded(to.trend[i].errors, from.trend[i].errors);
		add_bounded(to.trend[i].total_us, from.trend[i].total_us);
	}
}

void order_rows(SumAnswer &answer, SumOrder order, int64_t most, const NameRows &name)
{
	std::vector<std::pair<double, size_t>> ranks;
	for (size_t i = 0; i < answer.rows.size(); i++) ranks.emplace_back(-rank_of(answer.rows[i].sums, order), i);
	std::sort(ranks.begin(), ranks.end());
	const size_t stay = std::min(ranks.size(), static_cast<size_t>(std::max(most, int64_t{0})));
	answer.left_out = static_cast<int64_t>(ranks.size() - stay);
	size_t named = stay;
	while (stay > 0 && named < ranks.size() && ranks[named].first == ranks[stay - 1].first) named++;
	std::vector<SumRow> rows;
	for (size_t i = 0; i < named; i++) rows.push_back(std::move(answer.rows[ranks[i].second]));
	if (name) name(rows);
	std::vector<size_t> sorted(named);
	std::iota(sorted.begin(), sorted.end(), size_t{0});
	std::sort(sorted.begin(), sorted.end(), [&](size_t a, size_t b) {
		const KeyFacts &key = rows[a].key, &other = rows[b].key;
		return std::tie(ranks[a].first, key.application, key.name, key.id) <
			std::tie(ranks[b].first, other.application, other.name, other.id);
	});
	answer.rows.clear();
	for (size_t i = 0; i < stay; i++) answer.rows.push_back(std::move(rows[sorted[i]]));
}

} // namespace quorbit
