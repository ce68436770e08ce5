// Lists of actions, and their summaries for programs.
#include "print/report.h"

#include "base/text.h"
#include "base/clock.h"

#include <nlohmann/json.hpp>
#include <algorithm>

namespace quorbit {

namespace {

constexpr size_t widest_tail = 200; // beyond it names are whole, and push what follows

// The year says nothing in a list of the newest.
std::string day_of(int64_t wall_ms)
{
	return local_time(wall_ms).substr(5, 5);
}
std::string time_of_day(int64_t wall_ms)
{
	return local_time(wall_ms).substr(11);
}
bool same_day(int64_t a_ms, int64_t b_ms)
{
	return local_time(a_ms).substr(0, 10) == local_time(b_ms).substr(0, 10);
}

// Names have "%2F" for "/" and "*" for a run of digits: what stands between those is looked for.
bool name_holds_path(std::string_view name, std::string_view path)
{
	size_t at = 0;
	while (!path.empty()) {
		size_t plain = std::min(path.find_first_of("/0123456789"), path.size());
		size_t found = name.find(path.substr(0, plain), at);
		if (found == std::string_view::npos) return false;
		at = found + plain;
		path.remove_prefix(std::min(path.size(), plain + 1));
	}
	return true;
}

std::string share(const ActionRow &row, int64_t us)
{
	return percent(us, row.duration_us());
}

std::string name_cell(const ActionRow &row, const std::string &)
{
	std::string name = row.name.empty() ? "(no name)" : printable(row.name);
	if (!row.path.empty() && !name_holds_path(row.name, row.path)) name += "  " + printable(row.path);
	return name;
}

struct ListColumn {
	const char *title;
	bool right;
	size_t tail_width; // 0: shares what the others leave
	std::string (*cell)(const ActionRow &row, const std::string &time);
};
using Row = const ActionRow &;
using Time = const std::string &;
constexpr ListColumn list_columns[] = {
	{"ID", true, 7, [](Row row, Time) { return std::to_string(row.id); }},
	{"TIME", false, 8, [](Row, Time time) { return time; }},
	{"APPLICATION", false, 0, [](Row row, Time) { return printable(row.application); }},
	{"ACTION", false, 0, name_cell},
	{"TOOK", true, 7, [](Row row, Time) { return duration_text(row.duration_ms); }},
	{"DB", true, 4, [](Row row, Time) { return share(row, row.database_us()); }},
	{"SQL", true, 4, [](Row row, Time) { return row.exact ? std::to_string(row.exact->statements) : "-"; }},
	{"CACHE", true, 5, [](Row row, Time) { return share(row, row.cache_us()); }},
	{"EXT", true, 4, [](Row row, Time) { return share(row, row.external_us()); }},
	{"CODE", true, 4, [](Row row, Time) { return share(row, row.code_us()); }},
	{"STATUS", false, 9,
		[](Row row, Time) { return (row.status ? std::to_string(row.status) : "-") + (row.error ? " ERROR" : ""); }},
};
static_assert(std::ranges::all_of(list_columns, [](const ListColumn &column) { return column.cell != nullptr; }));
constexpr size_t application_column = 2, action_column = 3;

std::vector<std::string> cells_of(const ActionRow &row, const std::string &time)
{
	std::vector<std::string> cells;
	for (const ListColumn &column : list_columns) cells.push_back(column.cell(row, time));
	return cells;
}

std::string fixed_line(const std::vector<std::string> &cells, size_t width)
{
	size_t left = std::min(width, widest_tail);
	for (const ListColumn &column : list_columns)
		left -= std::min(left, column.tail_width + (&column == list_columns ? 0 : 2));
	std::string line;
	for (size_t i = 0; i < cells.size(); i++) {
		size_t columns = list_columns[i].tail_width;
		if (columns == 0) columns = i == application_column ? left / 3 : left - left / 3;
		// Only names are cut: half a number is another one.
		bool whole = list_columns[i].tail_width || width > widest_tail;
		std::string cell = whole ? cells[i] : cut_middle(cells[i], columns);
		std::string fill(columns - std::min(columns, text_width(cell)), ' ');
		line += (i ? "  " : "") + (list_columns[i].right ? fill + cell : cell + fill);
	}
	return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

} // namespace

std::string action_table(const std::vector<ActionRow> &rows, size_t width, int64_t now_wall_ms)
{
	std::vector<Column> columns;
	for (const ListColumn &column : list_columns) columns.push_back({column.title, column.right});
	columns[application_column].shrinks = columns[action_column].shrinks = true;
	auto is_old = [now_wall_ms](const ActionRow &row) { return !same_day(row.received_ms, now_wall_ms); };
	bool with_day = std::any_of(rows.begin(), rows.end(), is_old);
	const bool of_fleet = std::ranges::any_of(rows, [](const ActionRow &row) { return !row.host.empty(); });
	if (of_fleet) columns.insert(columns.begin() + application_column, {"HOST", false, true});
	std::vector<std::vector<std::string>> cells;
	for (const ActionRow &row : rows) {
		auto &line = cells.emplace_back(
			cells_of(row, (with_day ? day_of(row.received_ms) + " " : "") + time_of_day(row.received_ms)));
		if (of_fleet) line.insert(line.begin() + application_column, printable(row.host));
	}
	return table(columns, cells, width);
}

std::string tail_header(size_t width)
{
	std::vector<std::string> titles;
	for (const ListColumn &column : list_columns) titles.emplace_back(column.title);
	return fixed_line(titles, width);
}

std::string tail_line(const ActionRow &row, size_t width, int64_t now_wall_ms)
{
	bool today = same_day(row.received_ms, now_wall_ms);
	return fixed_line(cells_of(row, today ? time_of_day(row.received_ms) : day_of(row.received_ms)), width);
}

Json action_summary(const ActionRow &row)
{
	Json summary = {
		{"id", row.id},
		{"time", utc_time(row.received_ms)},
		{"application", row.application},
		{"action", row.name},
		{"duration_ms", row.duration_ms},
		{"database_ms", row.database_ms},
		{"cache_ms", row.cache_ms},
		{"external_ms", row.external_ms},
		{"code_ms", row.code_ms},
		{"database_us", row.database_us()},
		{"cache_us", row.cache_us()},
		{"external_us", row.external_us()},
		{"code_us", row.code_us()},
		{"statement_count", row.exact ? Json(row.exact->statements) : Json()},
		{"path", row.path.empty() ? Json() : Json(row.path)},
		{"status", row.status ? Json(row.status) : Json()},
		{"has_error", row.error},
		{"process", row.process},
	};
	if (!row.host.empty()) summary["host_name"] = row.host; // "host" is what the request asked for
	return summary;
}

std::string json_text(const Json &value, bool pretty)
{
	return value.dump(pretty ? 2 : -1, ' ', true, Json::error_handler_t::replace) + "\n";
}

} // namespace quorbit
