// Reading and printing traces.
#include "trace.h"

#include "text.h"

#include <algorithm>

namespace quorbit {

namespace {

// Positions in the list that a node is written as.
enum { at_start, at_end, at_name, at_url, at_count, at_class, at_function, at_parameters, at_children, node_size };

constexpr size_t text_lines = 6;    // of one statement or URL in the tree; `--json` has it whole
constexpr size_t most_indent = 20;  // levels that are shown by indentation

std::string string_at(const Json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int64_t integer_at(const Json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<int64_t>() : 0;
}

std::vector<std::string> frames_of(const Json& list) {
  std::vector<std::string> frames;
  if (!list.is_array()) return frames;
  for (const Json& frame : list) frames.push_back(frame.is_string() ? frame.get<std::string>() : "?");
  return frames;
}

void read_parameters(const Json& parameters, TraceNode& node) {
  if (parameters.contains("sql")) node.sql = string_at(parameters, "sql");
  if (parameters.contains("stacktrace")) node.stack = frames_of(parameters["stacktrace"]);
  if (parameters.contains("explainPlan")) node.plan = parameters["explainPlan"];
  if (parameters.contains("partialtrace")) {
    auto frames = frames_of(parameters["partialtrace"]);
    if (!frames.empty()) node.place = frames[0];
  }
  if (!parameters.contains("txData") || !parameters["txData"].is_object()) return;
  const Json& data = parameters["txData"];
  node.callee = Callee{string_at(data, "id"), string_at(data, "action"), string_at(data, "trId")};
  if (data.contains("time") && data["time"].is_object()) node.callee->duration_ms = integer_at(data["time"], "duration");
}

bool is_node(const Json& list) {
  if (!list.is_array() || list.size() < node_size) return false;
  for (int at : {at_start, at_end}) {
    if (!list[at].is_number_integer()) return false;
  }
  for (int at : {at_name, at_url, at_class, at_function}) {
    if (!list[at].is_string()) return false;
  }
  return list[at_parameters].is_object() && list[at_children].is_array();
}

TraceNode node_of(const Json& list, size_t level) {
  TraceNode node;
  node.level = level;
  node.start_ms = list[at_start].get<int64_t>();
  node.end_ms = list[at_end].get<int64_t>();
  node.name = list[at_name].get<std::string>();
  node.url = list[at_url].get<std::string>();
  node.cls = list[at_class].get<std::string>();
  node.func = list[at_function].get<std::string>();
  read_parameters(list[at_parameters], node);
  return node;
}

std::string right(int64_t number, size_t width) {
  std::string text = std::to_string(number);
  return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
}

class TreePrinter {
 public:
  explicit TreePrinter(size_t width) : width_(width) {}

  std::string out;

  void print(const TraceNode& node) {
    indent_ = 2 * std::min(node.level, most_indent);
    std::string head = right(node.start_ms, 7) + right(node.end_ms - node.start_ms, 8) + "  " + std::string(indent_, ' ');
    // Levels that indentation cannot show are told by their number.
    if (node.level > most_indent) head += "(" + std::to_string(node.level) + ") ";
    out += head + cut(label(node), width_ - head.size()) + "\n";
    details(node);
  }

 private:
  static std::string label(const TraceNode& node) {
    std::string call = node.cls.empty() ? node.func : node.cls + "::" + node.func;
    return printable(node.name.empty() ? call : node.name + "  (" + call + ")");
  }

  void details(const TraceNode& node) {
    if (!node.place.empty()) detail("at", {printable(node.place)});
    if (node.sql) detail("SQL", {printable(*node.sql)});
    if (!node.url.empty()) detail("URL", {printable(node.url)});
    std::vector<std::string> frames;
    for (const std::string& frame : node.stack) frames.push_back(printable(frame));
    detail("stack", frames);
    if (node.plan) detail("plan", plan_lines(*node.plan));
    if (node.callee) detail("callee", {printable(node.callee->action) + ", " + std::to_string(node.callee->duration_ms) + " ms"});
  }

  void detail(std::string title, const std::vector<std::string>& texts) {
    std::string before(19 + indent_, ' ');
    title.resize(8, ' ');
    for (const std::string& text : texts) {
      for (const std::string& line : wrap(text, width_ - before.size() - title.size(), text_lines)) {
        out += before + title + line + "\n";
        title.assign(title.size(), ' ');
      }
    }
  }

  size_t width_;
  size_t indent_ = 0;
};

}  // namespace

std::optional<std::vector<TraceNode>> read_trace(std::string_view json) {
  auto root = parse_agent_json(json);
  if (!root) return std::nullopt;
  // With a list of our own instead of recursion: traces nest as deep as a script's calls do.
  std::vector<std::pair<const Json*, size_t>> open = {{&*root, 0}};
  std::vector<TraceNode> nodes;
  while (!open.empty()) {
    auto [list, level] = open.back();
    open.pop_back();
    if (!is_node(*list)) return std::nullopt;
    nodes.push_back(node_of(*list, level));
    const Json& children = (*list)[at_children];
    for (auto child = children.rbegin(); child != children.rend(); ++child) open.emplace_back(&*child, level + 1);
  }
  return nodes;
}

std::string trace_text(const std::vector<TraceNode>& nodes, size_t width) {
  TreePrinter printer(width);
  for (const TraceNode& node : nodes) printer.print(node);
  return std::move(printer.out);
}

std::vector<std::string> read_stack(std::string_view json) {
  auto list = parse_agent_json(json);
  return list ? frames_of(*list) : std::vector<std::string>();
}

std::vector<std::string> plan_lines(const Json& plan) {
  auto has_list = [&plan](const char* key) { return plan.is_object() && plan.contains(key) && plan[key].is_array(); };
  if (!has_list("keys") || !has_list("values")) return {"none"};
  auto text = [](const Json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); };
  const Json& keys = plan["keys"];
  std::vector<std::string> lines;
  for (const Json& row : plan["values"]) {
    std::string line;
    for (size_t i = 0; row.is_array() && i < row.size() && i < keys.size(); i++) {
      if (row[i].is_null()) continue;
      if (keys.size() == 1) line = text(row[i]);
      else line += (line.empty() ? "" : "  ") + text(keys[i]) + "=" + text(row[i]);
    }
    lines.push_back(printable(line));
  }
  return lines;
}

}  // namespace quorbit
