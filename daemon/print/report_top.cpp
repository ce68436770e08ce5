// Sums per action name.
#include "print/report.h"

#include "base/text.h"

namespace quorbit {

std::string top_text(const std::vector<SumRow> &rows, size_t width)
{
	std::vector<Column> columns = {{"COUNT", true}, {"ERRORS", true}, {"P50", true}, {"P95", true}, {"DB", true},
		{"SQL", true}, {"CACHE", true}, {"EXT", true}, {"CODE", true}, {"APPLICATION", false, true},
		{"ACTION", false, true}};
	std::vector<std::vector<std::string>> cells;
	for (const SumRow &row : rows) {
		const Sums &sums = row.sums;
		auto share = [&sums](int64_t part) { return percent(part, sums.total_us); };
		auto percentile = [&sums](double share) { return duration_text(sums.durations.percentile_us(share) / 1000); };
		cells.push_back({std::to_string(sums.count), std::to_string(sums.errors), percentile(0.5), percentile(0.95),
			share(sums.database_us),
			std::to_string((sums.statements + sums.count / 2) / std::max(sums.count, int64_t{1})), share(sums.cache_us),
			share(sums.external_us), share(sums.code_us), printable(row.key.application),
			row.key.name.empty() ? "(no name)" : printable(row.key.name)});
	}
	return table(columns, cells, width);
}

} // namespace quorbit
