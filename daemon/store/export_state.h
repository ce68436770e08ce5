// How far the daemon has come with sending its store to that of a fleet. It is kept in the store.
#pragma once

#include "store/sqlite.h"

#include <cstdint>
#include <string>

namespace quorbit {

struct ExportState {
	int64_t target = 0;       // number of the fleet's store, 0 for none yet
	int64_t action_id = 0;    // actions up to it have arrived
	int64_t summed_id = 0;    // sums have, as far as they are of actions up to it
	int64_t minute = 0;       // since 1970, of the latest of these sums
	int64_t release_id = 0;   // releases have up to it
	int64_t tables_ms = 0;    // the other small tables have, as they were then
	int64_t evicted = 0;      // actions that made room for others before they were sent
	int64_t sent_ms = 0;      // when something arrived last
	std::string url = {};     // where to, without account and password; "" while nothing is to be sent
	std::string failure = {}; // of the last attempt; "" when it went well

	bool operator==(const ExportState &) const = default;
};

// What is kept in a store. Throws SqliteError.
ExportState read_export_state(Database &database);
// Within a transaction of the caller's.
void keep_export_state(Database &database, const ExportState &state);

// When the oldest action after that one was received; 0 when there is none.
int64_t oldest_after(Database &database, int64_t action_id);

// What is told of it: the state, and since when the oldest action that is there waits; 0 when none does.
struct ExportProgress {
	ExportState state;
	int64_t waits_since_ms = 0;
};
// Of the store in that file. Throws SqliteError.
ExportProgress export_progress(const std::string &store_path);

} // namespace quorbit
