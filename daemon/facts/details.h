// The details record of a metric packet: what its other records round off, cut or leave out.
#pragma once

#include "zqp_details_items.h"

#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quorbit {

struct Action;
struct TraceNode;

// Figures that the agent adds up before it cuts any.
struct ExactFigures {
	int64_t duration_us = 0, database_us = 0, cache_us = 0, external_us = 0;
	int64_t statements = 0, cache_operations = 0, calls = 0;
	int64_t user_us = 0, system_us = 0;  // processor time of the thread
	int64_t peak_memory = 0, output = 0; // bytes
	std::optional<int64_t> waited_us;    // in front of PHP
	std::optional<int64_t> exit_status;  // of a command-line run

	// What is left of the duration without database, caches and outgoing calls; never negative.
	int64_t code_us() const
	{
		int64_t rest = duration_us - database_us - cache_us - external_us;
		return rest > 0 ? rest : 0;
	}
};

// The item that carries a figure, its field, and its name in JSON; what not every action has is optional.
struct FigureRow {
	zq_details_item item;
	std::variant<int64_t ExactFigures::*, std::optional<int64_t> ExactFigures::*> field;
	const char *name;
};
inline constexpr FigureRow figure_rows[] = {
	{ZQ_ITEM_DURATION_US, &ExactFigures::duration_us, "duration_us"},
	{ZQ_ITEM_DATABASE_US, &ExactFigures::database_us, "database_us"},
	{ZQ_ITEM_CACHES_US, &ExactFigures::cache_us, "cache_us"},
	{ZQ_ITEM_SERVICES_US, &ExactFigures::external_us, "external_us"},
	{ZQ_ITEM_WAITED_US, &ExactFigures::waited_us, "waited_us"},
	{ZQ_ITEM_STATEMENTS, &ExactFigures::statements, "statements"},
	{ZQ_ITEM_CACHE_OPERATIONS, &ExactFigures::cache_operations, "cache_operations"},
	{ZQ_ITEM_SERVICES, &ExactFigures::calls, "calls"},
	{ZQ_ITEM_USER_US, &ExactFigures::user_us, "user_us"},
	{ZQ_ITEM_SYSTEM_US, &ExactFigures::system_us, "system_us"},
	{ZQ_ITEM_PEAK_MEMORY, &ExactFigures::peak_memory, "peak_memory_bytes"},
	{ZQ_ITEM_OUTPUT_BYTES, &ExactFigures::output, "output_bytes"},
	{ZQ_ITEM_EXIT_STATUS, &ExactFigures::exit_status, "exit_status"},
};
#define FIGURE(name, number) ZQ_ITEM_##name,
#define OTHER(name, number)
inline constexpr zq_details_item figures_of_the_record[] = {ZQ_DETAILS_ITEMS(FIGURE, OTHER)};
static_assert(std::size(figure_rows) == std::size(figures_of_the_record), "a figure of the record has no row");
#undef FIGURE
#undef OTHER

// A text of a trace node as it was; `field` is 1 for the class, 2 for the function, 3 for the statement, 4 and more for
// the frames of the stack; 4 for the place of a node without one.
struct WholeTraceText {
	size_t node = 0; // in the order in which the trace has them, from 0
	int field = 0;
	std::string text;
};

// The action's place in a trace that services of other makers share, in W3C's ids.
struct TraceContext {
	std::string trace_id;     // 16 bytes
	std::string span, parent; // 8 bytes: the action's own, and its caller's; the caller's "" when nobody's is known
};

// An outgoing call whose callee was told that it is this span.
struct CallSpan {
	static constexpr size_t none = SIZE_MAX;
	std::string id;                        // 8 bytes
	size_t call = none;                    // of the action's outgoing calls
	size_t node = none;                    // of its trace, counted as WholeTraceText::node
	int64_t start_us = 0, duration_us = 0; // since the action began
};

// Takes the record's body over into an action whose other records have been read. False, with nothing taken, when it
// overruns. Unknown items are skipped. Texts that are not UTF-8 are taken for Latin-1.
bool read_details(std::string_view body, Action &action);

// Puts the whole texts into the nodes of the action's trace.
void apply_whole_texts(const std::vector<WholeTraceText> &texts, std::vector<TraceNode> &nodes);

} // namespace quorbit
