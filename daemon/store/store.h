// The store: one SQLite file (WAL mode) with every metric packet as it came and the columns that tables and sums are
// made of. The daemon is its only writer, save for profile orders; the command line reads it.
#pragma once

#include "facts/packet.h"
#include "store/profile_sessions.h"
#include "store/sqlite.h"

#include <atomic>

namespace quorbit {

// A packet as it was received.
struct StoredPacket {
	uint8_t type = 0; // record_metric or record_thread_profile
	int64_t process = 0;
	int64_t received_ms = 0; // wall clock
	std::string body;
};

// A configuration query that was answered.
struct StoredQuery {
	std::string application;
	int64_t process = 0;
	int64_t received_ms = 0;
	std::string sapi, php_version;
	std::string given; // "key=value" lines of the configuration in force for it
};

// The writing half. Every function throws SqliteError; after that the object is of no more use.
class Store {
public:
	// Opens the file, or makes it with mode 0600. One that belongs to neither root nor this process's user is refused.
	// `stopping` ends, once it is true, the bringing of an older store to this layout.
	explicit Store(const std::string &path, const std::atomic<bool> *stopping = nullptr);

	void begin() { database_.execute("BEGIN IMMEDIATE"); }
	void commit();

	void add(const StoredPacket &packet);
	void add(const StoredQuery &query);

	// Removes the oldest packets until what is left fits into `most_bytes`, and the applications not seen for longest
	// beyond 1024.
	void prune(int64_t most_bytes);

	// Whether another process has written since the last call, or this is the first.
	bool changed_by_others();
	std::vector<ProfileOrder> waiting_orders(int64_t now_wall_ms);
	void order_started(const ProfileSession &session);

private:
	void add_action(const StoredPacket &packet);
	void add_profile_event(const StoredPacket &packet);
	int64_t used_bytes();
	void remove_oldest(const std::string &table, int64_t bytes);

	// Its constructor brings the file's layout up to date, before the statements below are prepared.
	struct Opened : Database {
		Opened(const std::string &path, const std::atomic<bool> *stopping);
	};
	// Gives out each number of a table once, whatever has been removed from it since.
	class Ids {
	public:
		Ids(Database &database, const char *table);
		int64_t next() { return ++last_; }
		void keep(Statement &keep_counter); // in the file, with the transaction that used them

	private:
		const std::string table_;
		int64_t last_, kept_;
	};
	Opened database_;
	Statement insert_action_, insert_event_, packet_seen_, query_seen_, keep_applications_, used_pages_, keep_counter_;
	Ids action_ids_, event_ids_;
	int64_t page_size_;
	int64_t data_version_ = -1;
};

} // namespace quorbit
