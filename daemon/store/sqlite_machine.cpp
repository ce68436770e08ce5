// What the machine did, and releases: small tables of their own.
#include "base/clock.h"
#include "store/sqlite_sums.h"

#include <algorithm>

namespace quorbit {

namespace {

} // namespace

std::vector<MachineRow> read_machine(Database &database, const MachineQuestion &question)
{
	const int64_t step_ms = std::max(question.step_ms / minute_ms * minute_ms, minute_ms);
	if (!question.host.empty() && question.host != this_host()) return {};
	Statement select(database,
		"SELECT minute * ?1 / ?2 * ?2 AS at, pool, sum(samples), sum(load_milli), sum(memory_bytes), "
		"sum(available_bytes), sum(busy), sum(idle), max(most_busy), sum(waiting), max(most_waiting) "
		"FROM machine_minute WHERE minute >= ?3 AND minute < ?4 GROUP BY at, pool");
	select.bind(1, minute_ms).bind(2, step_ms).bind(3, std::max(question.range.from_ms, int64_t{0}) / minute_ms);
	select.bind(4, question.range.until_ms / minute_ms + 1);
	std::vector<MachineRow> rows;
	// Of each time the row of no pool, which is the machine's, comes first.
	int64_t machine_samples = 1;
	while (select.step()) {
		const auto samples = static_cast<double>(std::max(select.integer(2), int64_t{1}));
		if (select.text(1).empty()) {
			machine_samples = std::max(select.integer(2), int64_t{1});
			MachineRow &row = rows.emplace_back();
			row.at_ms = select.integer(0);
			row.host = this_host();
			row.load = static_cast<double>(select.integer(3)) / samples / 1000;
			row.memory_bytes = select.integer(4) / machine_samples;
			row.available_bytes = select.integer(5) / machine_samples;
		} else if (!rows.empty()) {
			// A pool that was not there at a look had no process then.
			const auto looks = static_cast<double>(machine_samples);
			rows.back().pools.push_back({select.text(1), static_cast<double>(select.integer(6)) / looks,
				static_cast<double>(select.integer(7)) / looks, select.integer(8),
				static_cast<double>(select.integer(9)) / looks, select.integer(10)});
		}
	}
	return rows;
}

std::vector<ReleaseRow> read_releases(Database &database, const std::string &application)
{
	Statement select(database,
		"SELECT at_ms, name, application FROM release WHERE ?1 = '' OR application IN ('', ?1) ORDER BY at_ms, id");
	select.bind(1, application);
	std::vector<ReleaseRow> rows;
	while (select.step()) rows.push_back({select.integer(0), select.text(1), select.text(2)});
	return rows;
}

} // namespace quorbit
