// Sums per action name.
#include "print/report.h"

#include "base/text.h"

namespace quorbit {

std::string top_text(const std::vector<SumRow> &sums, size_t width)
{
	std::vector<Column> columns = {{"COUNT", true}, {"ERRORS", true}, {"P50", true}, {"P95", true}, {"DB", true},
		{"SQL", true}, {"CACHE", true}, {"EXT", true}, {"CODE", true}, {"APPLICATION", false, true},
		{"ACTION", false, true}};
	std::vector<std::vector<std::string>> cells;
	for (const SumRow &sum : sums) {
		auto share = [&sum](int64_t part) { return percent(part, sum.total_us); };
		cells.push_back({std::to_string(sum.count), std::to_string(sum.errors), duration_text(sum.p50_ms),
			duration_text(sum.p95_ms), share(sum.database_us),
			sum.counted ? std::to_string((sum.statements + sum.counted / 2) / sum.counted) : "-", share(sum.cache_us),
			share(sum.external_us), share(sum.code_us), printable(sum.application),
			sum.name.empty() ? "(no name)" : printable(sum.name)});
	}
	return table(columns, cells, width);
}

} // namespace quorbit
