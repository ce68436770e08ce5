// Adding actions up, with nearest-rank percentiles.
#include "store/action_sums.h"

#include <algorithm>

namespace quorbit {

void ActionSums::add(const ActionRow &row)
{
	Sum &sum = sums_[{row.application, row.name}];
	sum.row.errors += row.error;
	sum.row.total_us += row.duration_us();
	sum.row.database_us += row.database_us();
	sum.row.cache_us += row.cache_us();
	sum.row.external_us += row.external_us();
	sum.row.code_us += row.code_us();
	sum.row.counted += row.exact.has_value();
	sum.row.statements += row.exact ? row.exact->statements : 0;
	sum.durations_ms.push_back(row.duration_ms);
}

std::vector<SumRow> ActionSums::sorted()
{
	std::vector<SumRow> rows;
	for (auto &[key, sum] : sums_) {
		SumRow &row = rows.emplace_back(sum.row);
		row.application = key.first;
		row.name = key.second;
		row.count = static_cast<int64_t>(sum.durations_ms.size());
		row.p50_ms = percentile(sum.durations_ms, 50);
		row.p95_ms = percentile(sum.durations_ms, 95);
	}
	std::stable_sort(
		rows.begin(), rows.end(), [](const SumRow &a, const SumRow &b) { return a.total_us > b.total_us; });
	return rows;
}

int64_t percentile(std::vector<int64_t> &values, int percentile)
{
	if (values.empty()) return 0;
	size_t rank = (values.size() * static_cast<size_t>(percentile) + 99) / 100;
	auto at = values.begin() + static_cast<ptrdiff_t>(rank > 0 ? rank - 1 : 0);
	std::nth_element(values.begin(), at, values.end());
	return *at;
}

} // namespace quorbit
