// The trace of a slow action: nested calls with their times, SQL, stacks, plans and called applications.
#pragma once

#include "base/json_text.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace quorbit {

// The application that an outgoing call reached, in its own words.
struct Callee {
	std::string id, action, tracer_id;
	int64_t duration_ms = 0;
};

struct TraceNode {
	size_t level = 0;                 // 0 for the action itself
	int64_t start_ms = 0, end_ms = 0; // from the action's begin
	std::string name;                 // of an SQL statement or outgoing call, else ""
	std::string url;
	std::string cls, func;
	std::optional<std::string> sql;
	std::vector<std::string> stack;   // innermost frame first
	std::shared_ptr<const Json> plan; // null for none
	std::string place;                // "Class.function(file:line)" of a slow call, else ""
	std::optional<Callee> callee;
};

// The nodes in the order in which they are printed, parents before their children. Nothing when the text is no trace.
std::optional<std::vector<TraceNode>> read_trace(std::string_view json);

// The tree as lines of at most `width` columns, each ended by a line feed. Runs of siblings that do the same become one
// line with their number, total and slowest, their statements without the values; stacks and plans are left out, and
// beyond 200 lines whatever took least. `full`: everything, line by line.
std::string trace_text(const std::vector<TraceNode> &nodes, size_t width, bool full);

// The frames of a stack, innermost first; nothing when the text is no list of texts.
std::vector<std::string> read_stack(std::string_view json);

// "/shop.php:12" of a stack whose innermost frame is "PDO.query(/shop.php:12)"; "" of one that says no line.
std::string innermost_place(std::string_view stack);

} // namespace quorbit
