// A trace for programs: flat, with what the daemon knows of each element; and in the Trace Event Format.
#include "print/report.h"

#include "facts/plan.h"
#include "print/trace_shapes.h"
#include "zqp_store_classes.h"

#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

std::vector<TraceNode> nodes_of(const Action &action)
{
	auto nodes = action.trace.empty() ? std::nullopt : read_trace(action.trace);
	if (!nodes) return {};
	apply_whole_texts(action.trace_texts, *nodes);
	return std::move(*nodes);
}

std::string call_of(const TraceNode &node)
{
	return node.cls.empty() ? node.func : node.cls + "::" + node.func;
}

Json callee_json(const Callee &callee)
{
	return {{"application_id", callee.id}, {"action", callee.action}, {"trace_id", callee.tracer_id},
		{"duration_ms", callee.duration_ms}};
}

// What a node has beside its place in the trace; keys without a value are left out.
void add_texts(const TraceNode &node, Json &element)
{
	auto add = [&element](const char *key, const std::string &text) {
		if (!text.empty()) element[key] = text;
	};
	add("name", node.name);
	add("call", call_of(node));
	add("url", node.url);
	add("place", std::string(file_and_line(node.place)));
	if (node.sql) element["sql"] = *node.sql;
	add("kind", kind_of_statement(node));
	if (!node.stack.empty()) element["stack"] = node.stack;
	if (node.plan) {
		element["plan"] = *node.plan;
		add("finding", plan_finding(*node.plan));
	}
	if (node.callee) element["callee"] = callee_json(*node.callee);
}

// The layer that a node's own time counts for, by the form of names that the protocol gives to calls.
const char *category_of(const TraceNode &node)
{
	if (node.sql || node.name.starts_with("Database ")) return "database";
	if (node.name.starts_with("External/")) return "external";
	return zq_is_store_class(node.cls) ? "cache" : "code";
}

Json event_json(const TraceNode &node, int64_t begin_us, int64_t process)
{
	Json arguments;
	add_texts(node, arguments);
	return {{"name", node.name.empty() ? call_of(node) : node.name}, {"cat", category_of(node)}, {"ph", "X"},
		{"ts", begin_us + node.start_ms * 1000}, {"dur", (node.end_ms - node.start_ms) * 1000}, {"pid", process},
		{"tid", process}, {"args", std::move(arguments)}};
}

// One element after the other: all of them as values would take many times their text.
void append(std::string &out, const Json &value)
{
	if (out.back() != '[') out += ',';
	out += json_text(value, false);
	out.back() = '\n';
}

} // namespace

std::string trace_elements_json(const Action &action)
{
	const auto nodes = nodes_of(action);
	const TraceShapes shapes(nodes);
	std::string out = "[";
	for (size_t at = 0; at < nodes.size(); at++) {
		const TraceNode &node = nodes[at];
		Json element = {{"level", node.level}, {"start_ms", node.start_ms}, {"end_ms", node.end_ms},
			{"shape", shapes.shape(at)}, {"layer", category_of(node)}};
		add_texts(node, element);
		append(out, element);
	}
	return out + "]\n";
}

std::string trace_events_json(const StoredAction &shown)
{
	const ActionRow &row = shown.row;
	const int64_t begin_us = row.received_ms * 1000 - row.duration_us();
	std::string out = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
	const Json name = {{"name", row.application}};
	append(out, {{"name", "process_name"}, {"ph", "M"}, {"pid", row.process}, {"args", name}});
	auto nodes = nodes_of(shown.action);
	if (nodes.empty()) {
		TraceNode whole;
		whole.end_ms = row.duration_ms;
		nodes.push_back(std::move(whole));
	}
	if (nodes[0].name.empty()) nodes[0].name = row.name;
	for (const TraceNode &node : nodes) append(out, event_json(node, begin_us, row.process));
	return out + "]}\n";
}

} // namespace quorbit
