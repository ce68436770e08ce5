// What there is to know of each record of a metric packet: one table, for whoever reads packets and whoever cuts them.
#pragma once

#include "facts/packet.h"

namespace quorbit {

// What a packet that is too large gives up, in this order.
enum class RecordClass { parameter, text, statement, call, sum };

struct RecordKind {
	uint8_t type;
	RecordClass cls;
	bool listed; // each makes an entry of a list; of the others the last one holds
	// Adds what the record says. False when it cannot be understood; null for what is read apart from the others.
	bool (*read)(std::string_view body, Action &action);
};

// Null for a type that this version does not know.
const RecordKind *record_kind(uint8_t type);

} // namespace quorbit
