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
	// Adds what the record says. False when it cannot be understood; null for a record that is read separately.
	bool (*read)(std::string_view body, Action &action);
};

// Null for a type that this version does not know.
const RecordKind *record_kind(uint8_t type);

// Takes one "<length>:<bytes>" item, of which records of statements consist, off the front of `body`. False when there
// is none that is whole.
bool take_item(std::string_view &body, std::string_view &item);

} // namespace quorbit
