// Adding up and ordering rows of sums.
#include "store/sum_rows.h"

#include <algorithm>
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
		to.trend[i].count += from.trend[i].count;
		to.trend[i].errors += from.trend[i].errors;
		to.trend[i].total_us += from.trend[i].total_us;
	}
}

void order_rows(SumAnswer &answer, SumOrder order, int64_t most)
{
	std::vector<std::pair<double, size_t>> ranks;
	for (size_t i = 0; i < answer.rows.size(); i++) ranks.emplace_back(-rank_of(answer.rows[i].sums, order), i);
	auto less = [&](const auto &a, const auto &b) {
		const int64_t id = answer.rows[a.second].key.id, other = answer.rows[b.second].key.id;
		return std::tuple(a.first, id, a.second) < std::tuple(b.first, other, b.second);
	};
	std::sort(ranks.begin(), ranks.end(), less);
	answer.left_out = std::max(static_cast<int64_t>(ranks.size()) - most, int64_t{0});
	ranks.resize(ranks.size() - static_cast<size_t>(answer.left_out));
	std::vector<SumRow> rows;
	for (const auto &[rank, index] : ranks) rows.push_back(std::move(answer.rows[index]));
	answer.rows = std::move(rows);
}

} // namespace quorbit
