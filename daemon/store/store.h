// The store: one SQLite file (WAL mode) with every metric packet as it came and the columns that tables and sums are
// made of. The daemon is its only writer, except for profile orders; the command line reads it.
#pragma once

#include "facts/packet.h"
#include "host/host_sample.h"
#include "store/export_state.h"
#include "store/holders.h"
#include "store/order_lock.h"
#include "store/otlp_state.h"
#include "store/profile_sessions.h"
#include "store/radar_table.h"
#include "store/rollup.h"
#include "store/sqlite.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <set>

namespace quorbit {

class StepTimer;

// A packet as it was received.
struct StoredPacket {
	uint8_t type = 0; // record_metric or record_thread_profile
	int64_t process = 0;
	int64_t received_ms = 0; // wall clock
	std::string body;
	uint32_t account = 0; // of the process that sent it
};

// A configuration query that was answered.
struct StoredQuery {
	std::string application;
	int64_t process = 0;
	int64_t received_ms = 0;
	std::string sapi, php_version;
	std::string given; // "key=value" lines of the configuration in force for it
};

// What the store may take on disk.
struct StoreBounds {
	int64_t action_bytes = int64_t{512} << 20; // actions, and all tables beside them
	int64_t event_bytes = int64_t{64} << 20;   // events of thread profiles
	SumBounds sums = {};
	int64_t log_bytes = int64_t{64} << 20; // write-ahead log, where it cannot begin again; twice that is never exceeded
};

// The writing half. Every function throws SqliteError; after that the object cannot be used any more.
class Store {
public:
	// Opens the file, or makes it with mode 0600. One that belongs to neither root nor this process's user is refused.
	// `stopping` ends, once it is true, the bringing of an older store to this layout.
	explicit Store(const std::string &path, const std::atomic<bool> *stopping = nullptr);

	void begin();
	void commit();
	// Takes back what was not committed.
	void abandon();
	// Whether sums wait to be written that no commit will write by itself; write_sums() does it in a transaction of its
	// own.
	bool has_sums_due() const { return rollup_.is_due(); }
	void write_sums();

	void add(const StoredPacket &packet);
	void add(const StoredQuery &query);
	// Adds to the minute's averages of the host.
	void add(const HostSample &sample, int64_t now_wall_ms);
	// Adds to what was not stored of an application, in this minute and for this reason.
	void add_dropped(const std::string &application, const char *reason, int64_t count, int64_t now_wall_ms);

	// How far the store has been sent to a fleet's.
	void keep(const ExportState &state) { keep_export_state(database_, state); }
	void keep(const OtlpState &state) { keep_otlp_state(database_, state); }

	// One step of at most about 20 ms towards the bounds, as a transaction of its own: events that have been printed
	// go, then the oldest events and, by the rules of Holders, actions beyond their bounds, then free pages beyond a
	// quarter of the store go back to the file system. False when there was nothing to do.
	// `small`: no more at once than a small log has room for.
	bool maintain(const StoreBounds &bounds, bool small = false);
	// For a disk that is full: removes the oldest actions until that many bytes of the file are free.
	void make_room(int64_t bytes);
	// Whether the store does not grow, because little of its disk is left or it was told so: within the file, actions
	// then make room for others. It ends when there is room again.
	bool is_confined() const { return confined_bytes_ != INT64_MAX; }
	void confine();

	// Forgets the applications not seen for longest beyond 1024, and profile orders that ended long ago.
	void limit_tables();

	// Whether the log has been over its bound for more than 10 s, or is over twice the bound: a reader stands on an old
	// state of the store, and the log cannot begin again. Over twice the bound nothing more should be written.
	bool is_pinned() const
	{
		return copy_ || log_is_full() || (log_is_large() && Clock::now() - small_log_at_ > patience);
	}
	bool log_is_large() const { return log_pages_ * page_size_ >= log_bytes_; }
	bool log_is_full() const { return log_pages_ * page_size_ > 2 * log_bytes_; }
	bool empty_log(); // false when readers are in the way
	void set_log_bytes(int64_t bytes) { log_bytes_ = bytes; }
	// One step, of at most about 20 ms, of copying the store; true when the copy is whole. Writing may go on between
	// steps. Then this object must go, and replace_store_by_copy() be called.
	bool copy_step();

	// Whether another process has written since the last call, or this is the first.
	bool changed_by_others();
	// The orders whose clients wait, without those that were told to end. Orders whose clients are gone are closed, and
	// their events go; events of applications without any waiting client are not stored.
	std::vector<ProfileOrder> open_orders(int64_t now_wall_ms);
	// Whether any client waited, if only to print, when they were last asked for.
	bool has_clients() const { return !profiled_.empty(); }
	void order_started(const ProfileOrder &order);

private:
	void add_action(const StoredPacket &packet);
	void add_profile_event(const StoredPacket &packet);
	void close_order(int64_t id, int64_t now_wall_ms);
	static int64_t event_bytes(std::string_view packet); // about what it takes in the file
	int64_t used_bytes();
	int64_t free_bytes();
	void look_at_disk();
	static int64_t action_bytes(size_t packet_bytes); // about what it takes in the file
	bool knows_holders(int64_t bound_bytes, int64_t excess_bytes, StepTimer &timer);
	const ExampleOf &example_of(const HeldAction &action);
	void judge_former_examples(Holders::Removal &removal);
	bool remove_actions(int64_t bytes, int64_t most);
	bool remove_oldest_actions(int64_t bytes, int64_t most);
	void watch_log();
	void checkpoint();
	void checkpoint_when_due();
	void remove_oldest_events(int64_t bytes);
	void remove_printed();

	// Its constructor brings the file's layout up to date, before the statements below are prepared.
	struct Opened : Database {
		Opened(const std::string &path, const std::atomic<bool> *stopping);
	};
	// Gives out each number of a table once, whatever has been removed from it since.
	class Ids {
	public:
		Ids(Database &database, const char *table);
		int64_t next() { return ++last_; }
		int64_t last() const { return last_; }
		void keep(Statement &keep_counter); // in the file, with the transaction that used them
		void forget();                      // what was given out in a transaction that was taken back

	private:
		Database &database_;
		const std::string table_;
		int64_t last_, kept_;
	};
	Opened database_;
	Rollup rollup_;
	RadarTable radar_;
	Statement insert_action_, insert_event_, packet_seen_, query_seen_, keep_applications_, used_pages_, keep_counter_,
		drop_;
	Ids action_ids_, event_ids_;
	int64_t page_size_;
	int64_t data_version_ = -1;
	OrderLock clients_;
	std::set<std::string> profiled_; // applications whose events somebody waits for
	// Events up to that number, of an application that nobody profiles any more; those up to after_id are gone.
	struct PrintedEvents {
		std::string application;
		int64_t after_id, last_id;
	};
	std::vector<PrintedEvents> printed_;
	int64_t event_bytes_ = 0; // about what all events take
	// Read from the store when it is nearly full, oldest first: whose names were there first have the places. Actions
	// up to judged_id_ that are still there are kept.
	std::optional<Holders> holders_;
	bool all_read_ = false;
	int64_t read_id_ = 0, judged_id_ = 0;
	// Of the hour that is being judged: the examples, and up to which action its sums went then. And actions that were
	// examples.
	std::unordered_map<int64_t, ExampleOf> examples_;
	int64_t examples_hour_ = -1, examples_summed_id_ = 0;
	std::vector<int64_t> former_examples_;
	bool shrinking_ = false;
	int64_t confined_bytes_ = INT64_MAX; // what may be used of the file while it does not grow
	bool has_reserve_ = false;
	struct Copy {
		explicit Copy(Database &source);
		~Copy();
		Database target;
		sqlite3_backup *backup;
	};
	std::unique_ptr<Copy> copy_;
	using Clock = std::chrono::steady_clock;
	static constexpr auto patience = std::chrono::seconds(10);
	int64_t log_bytes_ = StoreBounds().log_bytes;
	int64_t log_pages_ = 0;
	Clock::time_point small_log_at_ = Clock::now();
};

// Puts the copy in the store's place; whoever has the old file open keeps it. What an end in between leaves is
// finished, or taken back, by finish_replacing() when a store is opened.
void replace_store_by_copy(const std::string &path);
void finish_replacing(const std::string &path);

} // namespace quorbit
