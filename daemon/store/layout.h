// The store's layout, as a list of migrations: a new store runs them all, an older one those that it lacks.
#pragma once

#include "store/sqlite.h"

#include <atomic>
#include <span>

namespace quorbit {

// A store of another version's layout: what() says so and what to do about it, which is also here by itself. Without a
// remedy it is one that is being made.
struct LayoutError : SqliteError {
	LayoutError(const std::string &found, const std::string &what_to_do)
		: SqliteError(what_to_do.empty() ? found : found + ": " + what_to_do), trouble(found), remedy(what_to_do)
	{
	}
	std::string trouble, remedy;
};

// What turns a store of layout `version - 1` into one of layout `version`. Stores out there have run the ones that were
// released, so these are never edited: whatever is to change in the tables is one more row.
struct Migration {
	int64_t version; // kept in the file as its user_version; 0 is a file that is being made
	const char *sql;
};

// All of them, oldest first; the last one's version is the layout that this program reads and writes.
std::span<const Migration> migrations();
int64_t newest_layout();

// Brings an open store to the newest layout, a new one in one transaction and an older one in one per migration:
// whatever ends it leaves the store at the layout that it had reached, and the next call continues from there.
// `stopping`, once true, ends the one that runs within milliseconds. Returns the layout that it found. Throws
// SqliteError, and LayoutError for a store of a newer layout.
int64_t bring_up_to_date(Database &database, const std::atomic<bool> *stopping = nullptr);

// Throws LayoutError unless the store has the newest layout.
void require_newest_layout(Database &database);

} // namespace quorbit
