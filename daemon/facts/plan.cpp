// Reading and printing query plans.
#include "facts/plan.h"

#include "base/text.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace quorbit {

namespace {

std::string cell_text(const Json &value)
{
	if (value.is_null()) return {};
	return value.is_string() ? value.get<std::string>() : value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The plan's texts; every row has as many as there are keys.
struct Grid {
	std::vector<std::string> keys;
	std::vector<std::vector<std::string>> rows;
	size_t left_out = 0; // rows

	size_t column(std::string_view key) const
	{
		return static_cast<size_t>(std::find(keys.begin(), keys.end(), key) - keys.begin());
	}
	bool has(std::string_view key) const { return column(key) < keys.size(); }
};

Grid grid_of(const Json &plan)
{
	Grid grid;
	auto has_list = [&plan](const char *key) { return plan.is_object() && plan.contains(key) && plan[key].is_array(); };
	if (!has_list("keys") || !has_list("values")) return grid;
	// Databases have at most a dozen columns, and programs of SQLite some hundred rows; a forged plan has what it
	// likes.
	constexpr size_t most_keys = 64, most_rows = 2000;
	for (const Json &key : plan["keys"]) {
		if (grid.keys.size() < most_keys) grid.keys.push_back(cell_text(key));
	}
	for (const Json &row : plan["values"]) {
		if (grid.rows.size() == most_rows) {
			grid.left_out++;
			continue;
		}
		std::vector<std::string> cells;
		for (const Json &value : row) {
			if (cells.size() < grid.keys.size()) cells.push_back(cell_text(value));
		}
		cells.resize(grid.keys.size());
		grid.rows.push_back(std::move(cells));
	}
	return grid;
}

std::vector<std::string> mysql_scans(const Grid &grid)
{
	std::vector<std::string> found;
	size_t type = grid.column("type"), table = grid.column("table");
	for (const auto &row : grid.rows) {
		// "<derived2>" is not a table but the result of another row.
		if (row[type] != "ALL" || row[table].empty() || row[table][0] == '<') continue;
		std::string rows = grid.has("rows") ? row[grid.column("rows")] : std::string();
		found.push_back(row[table] + (rows.empty() ? "" : " (about " + rows + (rows == "1" ? " row)" : " rows)")));
	}
	return found;
}

std::vector<std::string> postgres_scans(const Grid &grid)
{
	std::vector<std::string> found;
	for (const auto &row : grid.rows) {
		std::string_view line = row[0];
		line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
		if (line.starts_with("->  ")) line.remove_prefix(4);
		for (std::string_view words : {"Parallel ", "Seq Scan on "}) {
			if (line.starts_with(words))
				line.remove_prefix(words.size());
			else if (words[0] == 'S')
				line = {};
		}
		if (!line.empty())
			found.emplace_back(line.substr(0, line.find(line[0] == '"' ? "\" " : " ") + (line[0] == '"')));
	}
	return found;
}

// One instruction of SQLite's listing.
struct Instruction {
	std::string opcode, p4;
	int64_t p1 = 0, p2 = 0, p3 = 0;
};

std::vector<Instruction> program_of(const Grid &grid)
{
	std::vector<Instruction> program;
	auto number = [](const std::string &text) {
		int64_t value = 0;
		std::from_chars(text.data(), text.data() + text.size(), value);
		return value;
	};
	for (const char *key : {"p1", "p2", "p3", "p4"}) {
		if (!grid.has(key)) return program;
	}
	for (const auto &row : grid.rows) {
		auto at = [&](const char *key) { return row[grid.column(key)]; };
		program.push_back({at("opcode"), at("p4"), number(at("p1")), number(at("p2")), number(at("p3"))});
	}
	return program;
}

// Instructions after which the next one runs: their p2 is not an address. For any other it is taken to be one.
bool falls_through(const std::string &opcode)
{
	static const std::set<std::string_view> names = {"Add", "Affinity", "AggStep", "AggStep0", "And", "BitAnd",
		"BitNot", "BitOr", "Blob", "Cast", "Close", "CollSeq", "Column", "Compare", "Concat", "Copy", "DeferredSeek",
		"Divide", "Explain", "Function", "Function0", "Gosub", "IdxInsert", "Insert", "Int64", "Integer", "MakeRecord",
		"Move", "Multiply", "NewRowid", "Noop", "Not", "Null", "NullRow", "OpenRead", "Or", "PureFunc", "Real",
		"RealAffinity", "Remainder", "ResultRow", "RowData", "RowSetAdd", "Rowid", "SCopy", "Seek", "Sequence",
		"ShiftLeft", "ShiftRight", "SorterInsert", "String", "String8", "Subtract", "Variable"};
	return names.count(opcode) > 0;
}

// Whether the loop that `end` closes begins with the cursor's first or last row, and nothing inside jumps out of it
// (LIMIT, EXISTS and the like do).
bool reads_every_row(const std::vector<Instruction> &program, size_t end)
{
	int64_t cursor = program[end].p1, begin = program[end].p2;
	if (begin < 1 || static_cast<size_t>(begin) > end) return false;
	const Instruction &entry = program[static_cast<size_t>(begin) - 1];
	if ((entry.opcode != "Rewind" && entry.opcode != "Last") || entry.p1 != cursor) return false;
	for (size_t at = static_cast<size_t>(begin); at < end; at++) {
		bool inside = program[at].p2 >= begin && program[at].p2 <= static_cast<int64_t>(end);
		if (!inside && !falls_through(program[at].opcode)) return false;
	}
	return true;
}

std::vector<std::string> sqlite_scans(const Grid &grid)
{
	auto program = program_of(grid);
	using Table = std::pair<int64_t, int64_t>; // database, root page
	std::map<int64_t, Table> cursors; // those on tables: p4 is a number there, and a key's description for an index
	std::map<Table, std::string> names;
	for (const Instruction &step : program) {
		bool on_table = !step.p4.empty() && step.p4.find_first_not_of("0123456789") == std::string::npos;
		if (step.opcode == "OpenRead" && on_table) cursors[step.p1] = {step.p3, step.p2};
		if (step.opcode == "TableLock") names[{step.p1, step.p2}] = step.p4;
	}
	std::vector<std::string> found;
	for (size_t at = 0; at < program.size(); at++) {
		bool closes_loop = program[at].opcode == "Next" || program[at].opcode == "Prev";
		auto cursor = cursors.find(program[at].p1);
		if (closes_loop && cursor != cursors.end() && reads_every_row(program, at))
			found.push_back(names[cursor->second]);
	}
	return found;
}

struct Words {
	const char *one, *several, *unnamed;
};
constexpr Words scans = {"scans the table ", "scans the tables ", "scans a table"};
constexpr Words reads_all = {"reads the whole table ", "reads the whole tables ", "reads a whole table"};

std::string in_words(const Words &words, const std::vector<std::string> &tables)
{
	std::vector<std::string> named;
	for (const std::string &table : tables) {
		if (!table.empty() && std::find(named.begin(), named.end(), table) == named.end()) named.push_back(table);
	}
	if (tables.empty()) return {};
	// SQLite's listing names a table only where it locks one.
	std::string text = named.empty() ? words.unnamed : named.size() == 1 ? words.one : words.several;
	for (const std::string &name : named) text += (&name == &named[0] ? "" : ", ") + printable(name);
	return text + " row by row, without an index";
}

} // namespace

std::string plan_finding(const Json &plan)
{
	Grid grid = grid_of(plan);
	if (grid.has("type") && grid.has("table")) return in_words(scans, mysql_scans(grid));
	if (grid.has("opcode")) return in_words(reads_all, sqlite_scans(grid));
	if (grid.keys == std::vector<std::string>{"QUERY PLAN"}) return in_words(scans, postgres_scans(grid));
	return {};
}

std::optional<PlanScan> single_scan(const Json &plan)
{
	Grid grid = grid_of(plan);
	std::vector<std::string> found;
	PlanScan scan;
	if (grid.has("type") && grid.has("table")) {
		found = mysql_scans(grid);
		for (const auto &row : grid.rows) {
			if (row[grid.column("type")] != "ALL" || !grid.has("possible_keys")) continue;
			scan.has_keys |= !row[grid.column("possible_keys")].empty();
		}
	} else if (grid.has("opcode")) {
		found = sqlite_scans(grid);
	} else if (grid.keys == std::vector<std::string>{"QUERY PLAN"}) {
		found = postgres_scans(grid);
	}
	if (found.size() != 1) return std::nullopt;
	// "reviews (about 60000 rows)"; of PostgreSQL the name as it was written.
	scan.table = found[0].substr(0, found[0].find(" (about "));
	return scan;
}

std::vector<std::string> plan_lines(const Json &plan, size_t width, size_t most)
{
	Grid grid = grid_of(plan);
	if (grid.rows.empty()) return {"none"};
	size_t left_out = grid.rows.size() - std::min(grid.rows.size(), most);
	grid.rows.resize(grid.rows.size() - left_out);
	left_out += grid.left_out;
	std::vector<std::string> lines;
	if (grid.keys.size() == 1) {
		for (const auto &row : grid.rows) lines.push_back(cut(printable(row[0]), width));
	} else {
		std::vector<Column> columns;
		std::vector<std::vector<std::string>> cells(grid.rows.size());
		for (size_t i = 0; i < grid.keys.size(); i++) {
			if (std::all_of(grid.rows.begin(), grid.rows.end(), [i](const auto &row) { return row[i].empty(); }))
				continue;
			columns.push_back({printable(grid.keys[i]), false, true});
			for (size_t row = 0; row < cells.size(); row++) cells[row].push_back(printable(grid.rows[row][i]));
		}
		lines = table_lines(columns, cells, width);
	}
	if (left_out) lines.push_back("... and " + std::to_string(left_out) + (left_out == 1 ? " more row" : " more rows"));
	return lines;
}

} // namespace quorbit
