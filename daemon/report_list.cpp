// Lists of actions, and their summaries for programs.
#include "report.h"

#include "text.h"

namespace quorbit {

namespace {

std::string name_of(const ActionRow& row) { return row.name.empty() ? "(no name)" : printable(row.name); }
std::string status_of(const ActionRow& row) { return row.status ? std::to_string(row.status) : "-"; }

// Columns that all the others take when application and action names are left out.
constexpr size_t fixed_columns = 19 + 10 + 4 * 5 + 6 + 5 + 8 + 2 * 10;

std::string pad(std::string text, size_t width, bool right) {
  text = cut(text, width);
  std::string fill(width - text_width(text), ' ');
  return right ? fill + text : text + fill;
}

std::string tail_cells(const std::vector<std::string>& cells) {
  constexpr struct {
    size_t width;
    bool right;
  } columns[] = {{8, true}, {19, false}, {16, false}, {40, false}, {10, true}, {4, true}, {5, true}, {4, true}, {4, true}, {6, true}, {5, false}};
  std::string line;
  for (size_t i = 0; i < cells.size(); i++) line += (i ? "  " : "") + pad(cells[i], columns[i].width, columns[i].right);
  return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

std::vector<std::string> cells_of(const ActionRow& row) {
  return {std::to_string(row.id), local_time(row.received_ms), printable(row.application), name_of(row),
          std::to_string(row.duration_ms) + " ms", percent(row.database_ms, row.duration_ms), percent(row.cache_ms, row.duration_ms),
          percent(row.external_ms, row.duration_ms), percent(row.code_ms, row.duration_ms), status_of(row), row.error ? "ERROR" : ""};
}

const std::vector<std::string> titles = {"ID", "TIME", "APPLICATION", "ACTION", "DURATION", "DB", "CACHE", "EXT", "CODE", "STATUS", "ERROR"};

}  // namespace

std::string action_table(const std::vector<ActionRow>& rows, size_t width) {
  std::vector<Column> columns;
  for (const std::string& title : titles) columns.push_back({title, title != "TIME" && title != "APPLICATION" && title != "ACTION" && title != "ERROR"});
  if (width > 0) {
    size_t names = width > fixed_columns + 40 ? width - fixed_columns : 40;
    columns[2].most = names / 3;
    columns[3].most = names - names / 3;
  }
  std::vector<std::vector<std::string>> cells;
  for (const ActionRow& row : rows) cells.push_back(cells_of(row));
  return table(columns, cells);
}

std::string tail_header() { return tail_cells(titles); }
std::string tail_line(const ActionRow& row) { return tail_cells(cells_of(row)); }

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
