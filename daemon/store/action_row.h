// One line of a list of actions, and the columns of the store's table `action` that keep it.
#pragma once

#include "facts/packet.h"

#include <string>
#include <variant>

namespace quorbit {

struct ActionRow {
	int64_t id = 0;
	int64_t received_ms = 0; // wall clock, at the action's end
	int64_t process = 0;
	std::string application, name;
	int64_t duration_ms = 0, database_ms = 0, cache_ms = 0, external_ms = 0, code_ms = 0;
	int64_t status = 0; // 0 for a command-line run
	bool error = false;
	std::optional<ExactFigures> exact = std::nullopt; // in a list, of them those that have a column below
	std::string path = {};                            // of the request, or ""
	std::string host = {};                            // in a fleet's store; "" in the daemon's own

	// Microseconds: exact, or the milliseconds above.
	int64_t duration_us() const { return exact ? exact->duration_us : duration_ms * 1000; }
	int64_t database_us() const { return exact ? exact->database_us : database_ms * 1000; }
	int64_t cache_us() const { return exact ? exact->cache_us : cache_ms * 1000; }
	int64_t external_us() const { return exact ? exact->external_us : external_ms * 1000; }
	int64_t code_us() const { return exact ? exact->code_us() : code_ms * 1000; }
};

// What the packet says of its row: all but the id, the time and the process.
inline ActionRow row_of(const Action &action)
{
	ActionRow row{0, 0, 0, action.application, action.name};
	row.duration_ms = action.duration_ms;
	row.database_ms = action.database_ms;
	row.cache_ms = action.cache_ms;
	row.external_ms = action.external_ms;
	row.code_ms = action.code_ms();
	row.status = action.status();
	row.error = action.error.has_value();
	row.exact = action.exact;
	if (action.exact) row.path = action.path;
	return row;
}

// Of an exact figure and an optional text NULL says that the packet had none.
struct ActionColumn {
	using Field =
		std::variant<int64_t ActionRow::*, bool ActionRow::*, std::string ActionRow::*, int64_t ExactFigures::*>;
	const char *name;
	Field field;
	bool optional = false;
};

// Each is written with its packet and read for every list; the store adds what lists do not show (store/store.cpp).
inline constexpr ActionColumn action_columns[] = {
	{"received_ms", &ActionRow::received_ms},
	{"process", &ActionRow::process},
	{"application", &ActionRow::application},
	{"name", &ActionRow::name},
	{"duration_ms", &ActionRow::duration_ms},
	{"database_ms", &ActionRow::database_ms},
	{"cache_ms", &ActionRow::cache_ms},
	{"external_ms", &ActionRow::external_ms},
	{"code_ms", &ActionRow::code_ms},
	{"status", &ActionRow::status},
	{"error", &ActionRow::error},
	{"duration_us", &ExactFigures::duration_us},
	{"database_us", &ExactFigures::database_us},
	{"cache_us", &ExactFigures::cache_us},
	{"external_us", &ExactFigures::external_us},
	{"statements", &ExactFigures::statements},
	{"path", &ActionRow::path, true},
};

} // namespace quorbit
