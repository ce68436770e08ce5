// One action's share of the store: what a large packet keeps of itself.
#pragma once

#include "facts/wire.h"

namespace quorbit {

// Of records that make lists no more are read, whatever a packet has: one of 16 MiB could hold millions.
constexpr size_t most_listed_records = 100000;

// A trace has a share of its own: cut anywhere, it would no longer be JSON.
struct PacketShare {
	size_t most_bytes = size_t{256} << 10;
	size_t most_trace_bytes = size_t{1} << 20;
	size_t most_records = most_listed_records; // looked at; those after them go first
};

// What goes first when there are more packets than can be written: all but names, ids, times, sums and the error
// without its stack.
constexpr PacketShare head_share = {0, 0, 0};

// What was left out of a packet: how many of each, and the bytes of all.
struct LeftOut {
	int64_t parameters = 0;
	int64_t texts = 0; // stacks, plans, details, failed calls, unknown records
	int64_t statements = 0;
	int64_t calls = 0; // calls and components
	int64_t traces = 0;
	int64_t bytes = 0;
};

// The body of a metric packet within its share: parameters go first, then texts, then statements, the quickest first,
// then calls and components; what an action's sums are made of stays, each once and with 16 KiB of text. The result
// ends with a record that counts what went. Takes memory for what it keeps. Nothing when the packet is within its share
// or overruns.
std::optional<std::string> within_share(std::string_view body, const PacketShare &share);

// Reads that record. False when it is malformed.
bool read_left_out(std::string_view body, LeftOut &left_out);

// The name of the application that a packet is of, "" when it has none.
std::string_view application_of(std::string_view body);

} // namespace quorbit
