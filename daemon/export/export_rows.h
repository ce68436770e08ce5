// What the daemon's store has, as rows for the tables of a fleet's (store/fleet_layout.h).
#pragma once

#include "store/clickhouse.h"
#include "store/export_state.h"
#include "store/followed_store.h"
#include "store/row_binary.h"

#include <map>
#include <set>
#include <string>

namespace quorbit {

// Rows for tables, sent when some megabytes of one are together. Every call throws ClickHouseError.
class Inserts {
public:
	Inserts(ClickHouse &server, std::string id) : server_(server), id_(std::move(id)) {}

	void add(const char *table, const RowWriter &row);
	void send();                            // what is left, and forgets it
	size_t bytes() const { return bytes_; } // of all rows that were added

private:
	void send(const char *table, Gzip &rows);

	ClickHouse &server_;
	const std::string id_; // with which begins what the server calls these queries
	std::map<const char *, Gzip> waiting_;
	size_t bytes_ = 0;
};

// What every row begins with.
struct ExportSource {
	int64_t number; // of the store, in the fleet
	std::string host;
};

// Adds the actions that follow `state`, except for those of `arrived`, up to some 10 MB, and moves `state` beyond them.
// False when there are no more. Throws SqliteError.
bool add_actions(Database &database, const ExportSource &source, const std::set<int64_t> &arrived, Inserts &inserts,
	ExportState &state);

// Adds what has changed, since `state`, of sums with their keys and of the small tables, and moves `state` there. Reads
// in steps of some milliseconds. Throws SqliteError.
void add_sums(FollowedStore &store, const ExportSource &source, Inserts &inserts, ExportState &state);

} // namespace quorbit
