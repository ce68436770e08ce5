// Which elements of a trace do the same, so that a run of them can be shown as one.
#pragma once

#include "facts/trace.h"

#include <map>
#include <utility>

namespace quorbit {

// The statement of a node without its values; "" for a node without a statement.
std::string kind_of_statement(const TraceNode &node);

// "file:line" of "Class.function(file:line)"; a place of another form as it is.
std::string_view file_and_line(std::string_view place);

// Nodes with numbers for their shapes. Nodes have the same shape when they are of the same class, function, name and
// kind of statement, and so are their children, where runs of children of the same shape count as one. The nodes must
// outlive it.
class TraceShapes {
public:
	explicit TraceShapes(const std::vector<TraceNode> &nodes);

	const std::vector<size_t> &children(size_t at) const { return children_[at]; }
	size_t shape(size_t at) const { return shapes_[at]; }

private:
	using Key = std::pair<std::string, std::vector<size_t>>;

	size_t shape_of(const TraceNode &node, size_t at);

	std::vector<std::vector<size_t>> children_;
	std::vector<size_t> shapes_;
	std::map<Key, size_t> numbers_;
};

} // namespace quorbit
