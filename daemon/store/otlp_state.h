// How far the daemon has come with sending spans. It is kept in the store.
#pragma once

#include "store/sqlite.h"

#include <cstdint>
#include <string>

namespace quorbit {

struct OtlpState {
	std::string url = {};     // where to; "" before anything was sent
	int64_t action_id = 0;    // actions up to it have been sent, or are not to be
	int64_t refused = 0;      // actions that the receiver will never take
	int64_t evicted = 0;      // actions that made room for others before they were sent
	int64_t sent_ms = 0;      // when something arrived last
	std::string failure = {}; // of the last attempt; "" when it went well

	bool operator==(const OtlpState &) const = default;
};

// What is kept in a store. Throws SqliteError.
OtlpState read_otlp_state(Database &database);
// Within a transaction of the caller's.
void keep_otlp_state(Database &database, const OtlpState &state);

// What is told of it: the state, and since when the oldest action that is there waits; 0 when none does.
struct OtlpProgress {
	OtlpState state;
	int64_t waits_since_ms = 0;
};
// Of the store in that file. Throws SqliteError.
OtlpProgress otlp_progress(const std::string &store_path);

} // namespace quorbit
