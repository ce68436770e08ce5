// The details record of a metric packet: what its other records round off, cut or leave out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
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

// A text of a trace node as it was; `field` is 1 for the class, 2 for the function, 3 for the statement.
struct WholeTraceText {
	size_t node = 0; // in the order in which the trace has them, from 0
	int field = 0;
	std::string text;
};

// Takes the record's body over into an action whose other records have been read. False, with nothing taken, when it
// overruns. Unknown items are skipped. Texts that are not UTF-8 are taken for Latin-1.
bool read_details(std::string_view body, Action &action);

// Puts the whole texts into the nodes of the action's trace.
void apply_whole_texts(const std::vector<WholeTraceText> &texts, std::vector<TraceNode> &nodes);

} // namespace quorbit
