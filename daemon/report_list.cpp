// Lists of actions, and their summaries for programs.
#include "report.h"

#include "text.h"

#include <algorithm>

namespace quorbit {

namespace {

struct ListColumn {
  const char* title;
  bool right;
  size_t tail_width;
};
constexpr ListColumn list_columns[] = {
    {"ID", true, 8},
    {"TIME", false, 14},
    {"APPLICATION", false, 16},
    {"ACTION", false, 40},
    {"TOOK", true, 8},
    {"DB", true, 4},
    {"CACHE", true, 5},
    {"EXT", true, 4},
    {"CODE", true, 4},
    {"STATUS", false, 9},
};
constexpr size_t application_column = 2, action_column = 3;

// The year says nothing in a list of the newest.
std::string day_of(int64_t wall_ms) { return local_time(wall_ms).substr(5, 6); }
std::string time_of_day(int64_t wall_ms) { return local_time(wall_ms).substr(11); }

std::vector<std::string> cells_of(const ActionRow& row, bool with_day) {
  auto share = [&row](int64_t ms) { return percent(ms, row.duration_ms); };
  return {std::to_string(row.id),
          (with_day ? day_of(row.received_ms) : "") + time_of_day(row.received_ms),
          printable(row.application),
          row.name.empty() ? "(no name)" : printable(row.name),
          duration_text(row.duration_ms),
          share(row.database_ms),
          share(row.cache_ms),
          share(row.external_ms),
          share(row.code_ms),
          (row.status ? std::to_string(row.status) : "-") + (row.error ? " ERROR" : "")};
}

std::string fixed_line(const std::vector<std::string>& cells) {
  std::string line;
  for (size_t i = 0; i < cells.size(); i++) {
    std::string cell = cut_middle(cells[i], list_columns[i].tail_width);
    std::string fill(list_columns[i].tail_width - text_width(cell), ' ');
    line += (i ? "  " : "") + (list_columns[i].right ? fill + cell : cell + fill);
  }
  return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

}  // namespace

std::string action_table(const std::vector<ActionRow>& rows, size_t width, int64_t now_wall_ms) {
  std::vector<Column> columns;
  for (const ListColumn& column : list_columns) columns.push_back({column.title, column.right});
  columns[application_column].shrinks = columns[action_column].shrinks = true;
  const std::string today = local_time(now_wall_ms).substr(0, 10);
  auto is_old = [&today](const ActionRow& row) { return !local_time(row.received_ms).starts_with(today); };
  bool with_day = std::any_of(rows.begin(), rows.end(), is_old);
  std::vector<std::vector<std::string>> cells;
  for (const ActionRow& row : rows) cells.push_back(cells_of(row, with_day));
  return table(columns, cells, width);
}

std::string tail_header() {
  std::vector<std::string> titles;
  for (const ListColumn& column : list_columns) titles.emplace_back(column.title);
  return fixed_line(titles);
}

std::string tail_line(const ActionRow& row) { return fixed_line(cells_of(row, true)); }

Json action_summary(const ActionRow& row) {
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
      {"status", row.status ? Json(row.status) : Json()},
      {"has_error", row.error},
      {"process", row.process},
  };
  return summary;
}

std::string json_text(const Json& value, bool pretty) {
  return value.dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace quorbit
