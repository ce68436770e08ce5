// Reading traces.
#include "facts/trace.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

// Positions in the list that a node is written as.
enum { at_start, at_end, at_name, at_url, at_count, at_class, at_function, at_parameters, at_children, node_size };

std::string string_at(const Json &object, const char *key)
{
	auto found = object.find(key);
	return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int64_t integer_at(const Json &object, const char *key)
{
	auto found = object.find(key);
	return found != object.end() && found->is_number_integer() ? found->get<int64_t>() : 0;
}

std::vector<std::string> frames_of(const Json &list)
{
	std::vector<std::string> frames;
	if (!list.is_array()) return frames;
	for (const Json &frame : list) frames.push_back(frame.is_string() ? frame.get<std::string>() : "?");
	return frames;
}

void read_parameters(const Json &parameters, TraceNode &node)
{
	if (parameters.contains("sql")) node.sql = string_at(parameters, "sql");
	if (parameters.contains("stacktrace")) node.stack = frames_of(parameters["stacktrace"]);
	if (parameters.contains("explainPlan")) node.plan = std::make_shared<const Json>(parameters["explainPlan"]);
	if (parameters.contains("partialtrace")) {
		auto frames = frames_of(parameters["partialtrace"]);
		if (!frames.empty()) node.place = frames[0];
	}
	if (!parameters.contains("txData") || !parameters["txData"].is_object()) return;
	const Json &data = parameters["txData"];
	node.callee = Callee{string_at(data, "id"), string_at(data, "action"), string_at(data, "trId")};
	if (data.contains("time") && data["time"].is_object())
		node.callee->duration_ms = integer_at(data["time"], "duration");
}

bool is_node(const Json &list)
{
	if (!list.is_array() || list.size() < node_size) return false;
	for (int at : {at_start, at_end}) {
		if (!list[at].is_number_integer()) return false;
	}
	for (int at : {at_name, at_url, at_class, at_function}) {
		if (!list[at].is_string()) return false;
	}
	return list[at_parameters].is_object() && list[at_children].is_array();
}

TraceNode node_of(const Json &list, size_t level)
{
	TraceNode node;
	node.level = level;
	// Whatever a packet says, differences and sums stay numbers.
	constexpr int64_t most_ms = 1000000000000;
	node.start_ms = std::clamp(list[at_start].get<int64_t>(), -most_ms, most_ms);
	node.end_ms = std::clamp(list[at_end].get<int64_t>(), -most_ms, most_ms);
	node.name = list[at_name].get<std::string>();
	node.url = list[at_url].get<std::string>();
	node.cls = list[at_class].get<std::string>();
	node.func = list[at_function].get<std::string>();
	read_parameters(list[at_parameters], node);
	return node;
}

} // namespace

std::optional<std::vector<TraceNode>> read_trace(std::string_view json)
{
	auto root = parse_agent_json(json);
	if (!root) return std::nullopt;
	// With a list of our own instead of recursion: traces nest as deep as a script's calls do.
	std::vector<std::pair<const Json *, size_t>> open = {{&*root, 0}};
	std::vector<TraceNode> nodes;
	while (!open.empty()) {
		auto [list, level] = open.back();
		open.pop_back();
		if (!is_node(*list)) return std::nullopt;
		nodes.push_back(node_of(*list, level));
		const Json &children = (*list)[at_children];
		for (auto child = children.rbegin(); child != children.rend(); ++child) open.emplace_back(&*child, level + 1);
	}
	return nodes;
}

std::vector<std::string> read_stack(std::string_view json)
{
	auto list = parse_agent_json(json);
	return list ? frames_of(*list) : std::vector<std::string>();
}

std::string innermost_place(std::string_view stack)
{
	auto frames = stack.empty() ? std::vector<std::string>() : read_stack(stack);
	size_t open = frames.empty() ? std::string::npos : frames[0].find('(');
	return open == std::string::npos ? std::string() : frames[0].substr(open + 1, frames[0].size() - open - 2);
}

} // namespace quorbit
