// Sums per action name.
#include "print/report.h"

#include "base/text.h"

#include <algorithm>

namespace quorbit {

void ActionSums::add(const ActionRow &row)
{
	ActionSum &sum = sums_[{row.application, row.name}];
	sum.application = row.application;
	sum.name = row.name;
	sum.errors += row.error;
	sum.total_ms += row.duration_ms;
	sum.database_ms += row.database_ms;
	sum.cache_ms += row.cache_ms;
	sum.external_ms += row.external_ms;
	sum.code_ms += row.code_ms;
	sum.durations_ms.push_back(row.duration_ms);
}

std::vector<ActionSum> ActionSums::sorted() const
{
	std::vector<ActionSum> sums;
	for (const auto &[key, sum] : sums_) sums.push_back(sum);
	std::stable_sort(
		sums.begin(), sums.end(), [](const ActionSum &a, const ActionSum &b) { return a.total_ms > b.total_ms; });
	return sums;
}

int64_t percentile(std::vector<int64_t> values, int percentile)
{
	if (values.empty()) return 0;
	size_t rank = (values.size() * static_cast<size_t>(percentile) + 99) / 100;
	auto at = values.begin() + static_cast<ptrdiff_t>(rank > 0 ? rank - 1 : 0);
	std::nth_element(values.begin(), at, values.end());
	return *at;
}

std::string top_text(const std::vector<ActionSum> &sums, size_t width)
{
	std::vector<Column> columns = {{"COUNT", true}, {"ERRORS", true}, {"P50", true}, {"P95", true}, {"DB", true},
		{"CACHE", true}, {"EXT", true}, {"CODE", true}, {"APPLICATION", false, true}, {"ACTION", false, true}};
	std::vector<std::vector<std::string>> cells;
	for (const ActionSum &sum : sums) {
		auto share = [&sum](int64_t part) { return percent(part, sum.total_ms); };
		cells.push_back({std::to_string(sum.durations_ms.size()), std::to_string(sum.errors),
			duration_text(percentile(sum.durations_ms, 50)), duration_text(percentile(sum.durations_ms, 95)),
			share(sum.database_ms), share(sum.cache_ms), share(sum.external_ms), share(sum.code_ms),
			printable(sum.application), sum.name.empty() ? "(no name)" : printable(sum.name)});
	}
	return table(columns, cells, width);
}

} // namespace quorbit
