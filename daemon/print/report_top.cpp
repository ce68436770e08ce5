// Sums per action name.
#include "print/report.h"

#include "base/text.h"

namespace quorbit {

std::string top_text(const std::vector<SumRow> &sums, size_t width)
{
	std::vector<Column> columns = {{"COUNT", true}, {"ERRORS", true}, {"P50", true}, {"P95", true}, {"DB", true},
		{"CACHE", true}, {"EXT", true}, {"CODE", true}, {"APPLICATION", false, true}, {"ACTION", false, true}};
	std::vector<std::vector<std::string>> cells;
	for (const SumRow &sum : sums) {
		auto share = [&sum](int64_t part) { return percent(part, sum.total_ms); };
		cells.push_back({std::to_string(sum.count), std::to_string(sum.errors), duration_text(sum.p50_ms),
			duration_text(sum.p95_ms), share(sum.database_ms), share(sum.cache_ms), share(sum.external_ms),
			share(sum.code_ms), printable(sum.application), sum.name.empty() ? "(no name)" : printable(sum.name)});
	}
	return table(columns, cells, width);
}

} // namespace quorbit
