// One action whole, for people.
#include "report.h"

#include "text.h"

#include <algorithm>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr size_t statement_lines = 6;  // of one statement; `--json` has it whole
constexpr size_t title_columns = 14;

std::string milliseconds(int64_t ms) { return std::to_string(ms) + " ms"; }

class Page {
 public:
  explicit Page(size_t width) : width_(width) {}

  std::string out;

  void section(const std::string& title) { out += "\n" + title + "\n"; }

  // "  title   text", the text wrapped below itself.
  void entry(std::string title, std::string_view text, size_t most_lines = statement_lines) {
    title = "  " + cut(printable(title), title_columns);
    title.append(2 + title_columns + 1 - std::min(text_width(title), size_t{2} + title_columns), ' ');
    for (const std::string& line : wrap(printable(text), width_ - text_width(title), most_lines)) {
      out += title + line + "\n";
      title.assign(text_width(title), ' ');
    }
  }

  void rows(const std::vector<Column>& columns, const std::vector<std::vector<std::string>>& cells) {
    std::string text = table(columns, cells);
    for (size_t at = 0; at < text.size();) {
      size_t end = text.find('\n', at);
      out += "  " + text.substr(at, end - at) + "\n";
      at = end + 1;
    }
  }

  void stack(std::string_view json) {
    std::string title = "stack";
    for (const std::string& frame : read_stack(json)) {
      entry(title, frame);
      title = "";
    }
  }

  size_t width() const { return width_; }

 private:
  size_t width_;
};

void print_head(const StoredAction& shown, Page& page) {
  const auto& [row, action] = shown;
  page.out += "Action " + std::to_string(row.id) + "  " + (row.name.empty() ? "(no name)" : printable(action.name)) + "\n";
  page.entry("application", action.application);
  page.entry("time", local_time(row.received_ms) + ", process " + std::to_string(row.process));
  if (action.uri) page.entry("URI", *action.uri);
  if (row.status) page.entry("status", std::to_string(row.status));
  page.entry("duration", milliseconds(action.duration_ms));
  auto share = [&](const char* title, int64_t ms) {
    page.entry(title, milliseconds(ms) + " (" + percent(ms, action.duration_ms) + ")");
  };
  share("database", action.database_ms);
  share("caches", action.cache_ms);
  share("outgoing calls", action.external_ms);
  share("code", action.code_ms());
  if (action.block_ms) page.entry("queued before", milliseconds(action.block_ms));
  page.entry("CPU", milliseconds(action.cpu_ticks * 1000 / sysconf(_SC_CLK_TCK)));
  if (!action.transaction_id.empty()) page.entry("transaction", action.transaction_id);
  if (!action.tracer_id.empty()) page.entry("trace id", action.tracer_id);
}

void print_error(const Action& action, Page& page) {
  if (action.error) {
    page.section("Error");
    page.entry("class", action.error->cls);
    page.entry("message", action.error->message);
    page.stack(action.error->stack);
  }
  for (const ServiceError& error : action.service_errors) {
    page.section("Failed outgoing call");
    page.entry("name", error.name);
    page.entry("code", std::to_string(error.code));
    page.entry("message", error.message);
    if (!error.query.empty()) page.entry("query", error.query);
    page.stack(error.stack);
  }
}

void print_statements(const Action& action, Page& page) {
  if (action.statements.empty()) return;
  page.section("SQL");
  for (const StatementGroup& group : group_statements(action.statements)) {
    std::string times = milliseconds(group.total_ms);
    if (group.count > 1) {
      times = std::to_string(group.count) + " times, " + times + " in all, slowest " + milliseconds(group.slowest_ms);
    }
    page.entry(group.vendor.empty() ? "statement" : group.vendor, times);
    page.entry("", group.statement);
    if (!group.place.empty()) page.entry("run at", group.place);
    page.stack(group.stack);
    auto plan = group.plan.empty() ? std::nullopt : parse_agent_json(group.plan);
    std::string title = "plan";
    auto lines = plan ? plan_lines(*plan) : std::vector<std::string>();
    for (const std::string& line : lines) page.entry(std::exchange(title, ""), line);
  }
}

void print_calls(const Action& action, Page& page) {
  if (!action.caches.empty()) {
    page.section("Caches");
    std::vector<std::vector<std::string>> cells;
    for (const CacheCall& call : action.caches) {
      cells.push_back({milliseconds(call.duration_ms), printable(call.product), printable(call.collection),
                       printable(call.operation)});
    }
    page.rows({{"TIME", true}, {"PRODUCT"}, {"COLLECTION", false, 40}, {"OPERATION", false, 30}}, cells);
  }
  if (!action.services.empty()) page.section("Outgoing calls");
  for (const ServiceCall& call : action.services) {
    page.entry(milliseconds(call.duration_ms), call.name);
    if (!call.callee_action.empty()) page.entry("", "answered by " + call.callee_action);
  }
  if (action.components.empty()) return;
  page.section("Components");
  auto components = action.components;
  auto more = [](const Component& a, const Component& b) { return a.own_ms > b.own_ms; };
  std::stable_sort(components.begin(), components.end(), more);
  std::vector<std::vector<std::string>> cells;
  for (const Component& component : components) {
    cells.push_back({milliseconds(component.duration_ms), milliseconds(component.own_ms), printable(component.name)});
  }
  page.rows({{"TIME", true}, {"OWN", true}, {"COMPONENT", false, page.width() - 26}}, cells);
}

void print_trace(const Action& action, Page& page) {
  if (action.trace.empty()) return;
  page.section("Trace (ms from the begin, ms taken)");
  auto nodes = read_trace(action.trace);
  if (nodes) page.out += trace_text(*nodes, page.width());
  else page.entry("unreadable", action.trace);
}

void print_related(const std::vector<RelatedAction>& related, Page& page) {
  if (related.empty()) return;
  page.section("Transaction");
  constexpr const char* words[] = {"called by", "called", "same"};
  for (const auto& [relation, other] : related) {
    std::string text = "action " + std::to_string(other->row.id) + ", " + other->action.application + ", " + other->action.name;
    page.entry(words[static_cast<int>(relation)], text + ", " + milliseconds(other->action.duration_ms));
  }
  // The other half itself, as far as there is one.
  for (const auto& [relation, other] : related) {
    if (relation == Relation::same_transaction || other->action.trace.empty()) continue;
    auto nodes = read_trace(other->action.trace);
    if (!nodes) continue;
    const std::string half = relation == Relation::caller ? "Caller" : "Callee";
    page.section(half + ": trace of action " + std::to_string(other->row.id));
    page.out += trace_text(*nodes, page.width());
  }
}

void print_rest(const Action& action, Page& page) {
  if (!action.details.empty()) page.section("Request");
  for (const NameValue& detail : action.details) page.entry(detail.name, detail.value);
  if (!action.parameters.empty()) page.section("Parameters");
  for (const NameValue& parameter : action.parameters) page.entry(parameter.name, parameter.value);
  if (!action.unknown.empty()) page.section("Records unknown to this version");
  for (const UnknownRecord& record : action.unknown) {
    std::string size = std::to_string(record.body.size()) + " bytes: ";
    page.entry("type " + std::to_string(record.type), size + record.body.substr(0, 400));
  }
}

}  // namespace

std::vector<StatementGroup> group_statements(const std::vector<SqlStatement>& statements) {
  std::map<std::pair<std::string_view, std::string_view>, size_t> places;
  std::vector<StatementGroup> groups;
  for (const SqlStatement& sql : statements) {
    auto [place, is_new] = places.try_emplace({sql.vendor, sql.statement}, groups.size());
    if (is_new) groups.push_back({sql.vendor, sql.statement, 0, 0, 0, {}, {}, {}});
    StatementGroup& group = groups[place->second];
    bool slowest = group.count == 0 || sql.duration_ms > group.slowest_ms;
    group.count++;
    group.total_ms += sql.duration_ms;
    group.slowest_ms = std::max(group.slowest_ms, sql.duration_ms);
    if (!sql.stack.empty() && (slowest || group.stack.empty())) group.stack = sql.stack;
    if (!sql.plan.empty() && (slowest || group.plan.empty())) group.plan = sql.plan;
  }
  for (StatementGroup& group : groups) {
    auto frames = group.stack.empty() ? std::vector<std::string>() : read_stack(group.stack);
    size_t open = frames.empty() ? std::string::npos : frames[0].find('(');
    if (open != std::string::npos) group.place = frames[0].substr(open + 1, frames[0].size() - open - 2);
  }
  std::stable_sort(groups.begin(), groups.end(), [](const auto& a, const auto& b) { return a.total_ms > b.total_ms; });
  return groups;
}

std::vector<std::string> called_tracer_ids(const Action& action) {
  std::vector<std::string> ids;
  auto nodes = action.trace.empty() ? std::nullopt : read_trace(action.trace);
  if (!nodes) return ids;
  for (const TraceNode& node : *nodes) {
    if (node.callee && !node.callee->tracer_id.empty()) ids.push_back(node.callee->tracer_id);
  }
  return ids;
}

std::vector<RelatedAction> relate(const StoredAction& shown, const std::vector<StoredAction>& others) {
  auto calls = [](const Action& action, const std::string& tracer_id) {
    auto ids = called_tracer_ids(action);
    return !tracer_id.empty() && std::find(ids.begin(), ids.end(), tracer_id) != ids.end();
  };
  std::vector<RelatedAction> related;
  for (const StoredAction& other : others) {
    Relation relation = Relation::same_transaction;
    if (calls(shown.action, other.action.tracer_id)) relation = Relation::callee;
    else if (calls(other.action, shown.action.tracer_id)) relation = Relation::caller;
    related.push_back({relation, &other});
  }
  return related;
}

std::string action_text(const StoredAction& shown, const std::vector<RelatedAction>& related, size_t width) {
  Page page(width);
  print_head(shown, page);
  print_error(shown.action, page);
  print_statements(shown.action, page);
  print_calls(shown.action, page);
  print_trace(shown.action, page);
  print_related(related, page);
  print_rest(shown.action, page);
  return std::move(page.out);
}

}  // namespace quorbit
