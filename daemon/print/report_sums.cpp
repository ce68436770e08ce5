// Lists of sums, for people.
#include "print/report_sums.h"

#include "base/clock.h"
#include "print/page.h"

#include <algorithm>

namespace quorbit {

namespace {

// Pages that have room for more columns, so that names keep some of it.
constexpr size_t beyond_80 = 100, wide = 110, very_wide = 130;

bool is_whole(SumKey key)
{
	return key == SumKey::action || key == SumKey::path || key == SumKey::application || key == SumKey::host;
}
bool is_error(SumKey key)
{
	return key == SumKey::error;
}
bool has_number(SumKey key)
{
	return key != SumKey::application && key != SumKey::host;
}
bool is_timed(SumKey key)
{
	return !is_error(key);
}
bool is_any(SumKey)
{
	return true;
}

std::string name_text(const KeyFacts &facts)
{
	return facts.name.empty() ? "(no name)" : printable(facts.name);
}

// What a cell may need beside its row.
struct Context {
	const SumList &list;
	int64_t now_ms;
};

struct SumColumn {
	const char *title;
	bool (*is_for)(SumKey key);
	size_t least_width; // of the page
	bool right, shrinks;
	std::string (*cell)(const SumRow &row, const Context &context);
};

std::string share(const SumRow &row, int64_t part)
{
	return percent(part, row.sums.total_us);
}

std::string seen_first(const SumRow &row, const Context &context)
{
	const ReleaseRow *release = new_since(context.list, row.key);
	return ago(row.key.first_ms, context.now_ms) + (release ? ", new since " + printable(release->name) : "");
}

std::string trend_of(const SumRow &row, const Context &)
{
	std::vector<int64_t> counts;
	for (const TrendPoint &point : row.trend) counts.push_back(point.count);
	return sparkline(counts);
}

constexpr SumColumn sum_columns[] = {
	{"ID", has_number, wide, true, false,
		[](const SumRow &row, const Context &) { return std::to_string(row.key.id); }},
	{"COUNT", is_any, 0, true, false,
		[](const SumRow &row, const Context &) { return std::to_string(row.sums.count); }},
	{"FIRST SEEN", is_error, 0, false, false, seen_first},
	{"LAST SEEN", is_error, 0, false, false,
		[](const SumRow &row, const Context &context) { return ago(row.key.last_ms, context.now_ms); }},
	{"ERRORS", is_timed, 0, true, false,
		[](const SumRow &row, const Context &) { return std::to_string(row.sums.errors); }},
	{"AVG", is_timed, 0, true, false,
		[](const SumRow &row, const Context &) { return fine_duration_text(row.sums.average_us()); }},
	{"P95", is_timed, 0, true, false,
		[](const SumRow &row, const Context &) { return fine_duration_text(row.sums.durations.percentile_us(0.95)); }},
	{"TIME", is_timed, 0, true, false,
		[](const SumRow &row, const Context &context) {
			return percent(row.sums.total_us, context.list.answer.all.total_us);
		}},
	{"DB", is_whole, 0, true, false,
		[](const SumRow &row, const Context &) { return share(row, row.sums.database_us); }},
	{"SQL", is_whole, 0, true, false,
		[](const SumRow &row, const Context &) {
			return std::to_string((row.sums.statements + row.sums.count / 2) / std::max(row.sums.count, int64_t{1}));
		}},
	{"CACHE", is_whole, beyond_80, true, false,
		[](const SumRow &row, const Context &) { return share(row, row.sums.cache_us); }},
	{"EXT", is_whole, beyond_80, true, false,
		[](const SumRow &row, const Context &) { return share(row, row.sums.external_us); }},
	{"CODE", is_whole, 0, true, false, [](const SumRow &row, const Context &) { return share(row, row.sums.code_us); }},
	{"TREND", is_any, very_wide, false, false, trend_of},
	{"APPLICATION", has_number, 0, false, true,
		[](const SumRow &row, const Context &) { return printable(row.key.application); }},
	{"", is_any, 0, false, true, [](const SumRow &row, const Context &) { return name_text(row.key); }},
};

std::string table_text(const SumList &list, size_t width, bool bars, int64_t now_ms)
{
	const SumKey key = list.question.key;
	const Context context{list, now_ms};
	std::vector<const SumColumn *> chosen;
	std::vector<Column> columns;
	for (const SumColumn &column : sum_columns) {
		if (!column.is_for(key) || width < column.least_width || (column.cell == trend_of && !bars)) continue;
		std::string title = column.title;
		if (title.empty()) title = name_of(key);
		for (char &byte : title) byte = byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte;
		chosen.push_back(&column);
		columns.push_back({title, column.right, column.shrinks});
	}
	std::vector<std::vector<std::string>> cells;
	for (const SumRow &row : list.answer.rows) {
		auto &line = cells.emplace_back();
		for (const SumColumn *column : chosen) line.push_back(column->cell(row, context));
	}
	return table(columns, cells, width);
}

std::string times(int64_t count, int64_t actions)
{
	const int64_t each = (count + actions / 2) / std::max(actions, int64_t{1});
	return std::to_string(std::max(each, int64_t{1})) + " x in ";
}

// "query:17  40% of database time, 800 calls, average 2.4 ms, p95 12 ms", and below it what to know of it.
void print_query(const SumRow &row, const SumList &list, bool bars, Page &page)
{
	const Sums &sums = row.sums;
	const std::string id = row.key.id ? "query:" + std::to_string(row.key.id) : std::string(other_keys);
	std::string head = id + "  " + percent(sums.total_us, list.answer.all.total_us) + " of database time, " +
		std::to_string(sums.count) + (sums.count == 1 ? " call" : " calls") + ", average " +
		fine_duration_text(sums.average_us()) + ", p95 " + fine_duration_text(sums.durations.percentile_us(0.95));
	if (bars) head += "  " + trend_of(row, {list, 0});
	page.out += head + "\n";
	page.entry("", row.key.name);
	if (auto found = list.actions.find(row.key.id); found != list.actions.end()) {
		std::string text;
		for (const SumRow &action : found->second) {
			text +=
				(text.empty() ? "" : ", ") + times(action.sums.statements, action.sums.count) + name_text(action.key);
		}
		page.entry("run", text);
	}
	if (!row.key.place.empty()) page.entry("run at", Place{row.key.place, row.key.caller}.text());
	if (!row.key.finding.empty()) page.entry("finding", row.key.finding);
	if (!row.key.suggestion.empty()) page.entry("try", row.key.suggestion);
	page.out += "\n";
}

std::string machine_text(const std::vector<MachineRow> &machine)
{
	std::string text;
	for (const MachineRow &row : machine) {
		char figures[160];
		constexpr double gigabyte = 1 << 30;
		snprintf(figures, sizeof figures, ": load %.2f, memory %.1f of %.1f GiB available\n", row.load,
			static_cast<double>(row.available_bytes) / gigabyte, static_cast<double>(row.memory_bytes) / gigabyte);
		text += "\n" + printable(row.host) + figures;
		std::vector<std::vector<std::string>> cells;
		for (const PoolRow &pool : row.pools) {
			char busy[32], idle[32];
			snprintf(busy, sizeof busy, "%.1f", pool.busy);
			snprintf(idle, sizeof idle, "%.1f", pool.idle);
			cells.push_back(
				{printable(pool.name), busy, std::to_string(pool.most_busy), idle, std::to_string(pool.most_waiting)});
		}
		if (!cells.empty())
			text += table({{"POOL"}, {"BUSY", true}, {"MOST", true}, {"IDLE", true}, {"MOST WAITING", true}}, cells);
	}
	return text;
}

} // namespace

std::string sums_text(const SumList &list, size_t width, bool bars, int64_t now_wall_ms)
{
	if (list.question.key != SumKey::query)
		return table_text(list, width, bars, now_wall_ms) + machine_text(list.machine);
	Page page(width, false);
	for (const SumRow &row : list.answer.rows) print_query(row, list, bars, page);
	if (list.answer.rows.empty()) page.out = "No statement has been recorded in this time.\n";
	return page.out;
}

} // namespace quorbit
