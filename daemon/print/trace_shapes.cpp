// Numbering shapes, children first.
#include "print/trace_shapes.h"

#include "facts/sql_text.h"

namespace quorbit {

// Names of statements are "Database vendor/table/operation".
std::string kind_of_statement(const TraceNode &node)
{
	constexpr std::string_view before = "Database ";
	if (!node.sql) return {};
	std::string_view vendor = node.name;
	vendor.remove_prefix(vendor.starts_with(before) ? before.size() : vendor.size());
	return normalise_sql(*node.sql, vendor.substr(0, vendor.find('/')));
}

std::string_view file_and_line(std::string_view place)
{
	size_t open = place.find('(');
	return open == std::string_view::npos || !place.ends_with(")") ? place
																   : place.substr(open + 1, place.size() - open - 2);
}

TraceShapes::TraceShapes(const std::vector<TraceNode> &nodes) : children_(nodes.size()), shapes_(nodes.size())
{
	std::vector<size_t> open; // the last node of each level
	for (size_t at = 0; at < nodes.size(); at++) {
		open.resize(nodes[at].level);
		if (!open.empty()) children_[open.back()].push_back(at);
		open.push_back(at);
	}
	for (size_t at = nodes.size(); at-- > 0;) shapes_[at] = shape_of(nodes[at], at);
}

size_t TraceShapes::shape_of(const TraceNode &node, size_t at)
{
	Key key;
	for (const std::string &part : {node.cls, node.func, node.name, kind_of_statement(node)}) key.first += part + '\0';
	for (size_t child : children_[at]) {
		if (key.second.empty() || key.second.back() != shapes_[child]) key.second.push_back(shapes_[child]);
	}
	return numbers_.try_emplace(std::move(key), numbers_.size()).first->second;
}

} // namespace quorbit
