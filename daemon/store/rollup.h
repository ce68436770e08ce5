// Sums by minute and hour of each key of the actions that are stored: what is left of them once their packets are gone.
//
// The sums of the present minute and hour are worked on in memory and written within the transactions of the store,
// with the number of the last action that is in them. So every action counts once, whatever ends the daemon: those that
// are stored and not yet in the sums are added from their packets.
#pragma once

#include "facts/keys.h"
#include "store/pins.h"
#include "store/sqlite.h"

#include <array>
#include <chrono>
#include <map>
#include <unordered_map>

namespace quorbit {

// How long sums are kept, and what they may take.
struct SumBounds {
	int64_t minute_days = 3, hour_days = 90;
	int64_t bytes = int64_t{256} << 20; // about; beyond it the oldest minutes go, then the oldest hours
};

// Keys of a kind that are told apart within a minute; what comes beyond counts as "(others)" of its application, and
// beyond so many applications as "(others)" of "(others)".
constexpr int64_t most_minute_keys = 2000, most_other_keys = 200;
// Keys of a kind that are remembered: those seen last.
constexpr int64_t most_known_keys = 20000;
// Pairs of an action and what was in it, in an hour.
constexpr size_t most_hour_uses = 20000;

// Every function throws SqliteError, after which forget() is due; all but forget() run within a transaction.
class Rollup {
public:
	explicit Rollup(Database &database);

	// Adds an action that has been stored under this number, greater than all before.
	void add(const Action &action, int64_t id, int64_t received_ms);

	// Whether there is something to write, and writing takes a twentieth of the time at most when it is done now.
	bool is_due() const;
	void write();
	// The last action that is in the written sums.
	int64_t summed_id() const { return summed_id_; }

	// For a transaction that was taken back: what is not written has to be added again.
	void forget();
	// Adds the stored actions that are in no sums, as after forget() and when a store is opened. Cheap when there are
	// none.
	void catch_up();

	// Whether there is anything to do for the bounds: once a minute, or beyond the bytes.
	bool wants_maintenance(const SumBounds &bounds, int64_t now_wall_ms) const;
	// One step of some milliseconds towards them. False when there was nothing to do.
	bool maintain(const SumBounds &bounds, int64_t now_wall_ms);
	int64_t bytes() const { return bytes_; } // about what all sums take

	// The actions that the written sums of an hour since 1970 name, with the keys of which they are the slowest, the
	// newest or one by chance.
	std::unordered_map<int64_t, ExampleOf> examples_of(int64_t hour);
	// For how long each key has been seen, in milliseconds; those that are not known any more for none.
	std::function<int64_t(int64_t key)> lifetimes();

private:
	using Clock = std::chrono::steady_clock;
	enum class Table : uint8_t { minute, hour, use };
	// One row of one of the tables. `time` is the minute or hour since 1970; `action` is of uses alone.
	struct Slot {
		Table table;
		KeyKind kind;
		int64_t time, key, action;
		auto operator<=>(const Slot &) const = default;
	};
	struct SlotHash {
		size_t operator()(const Slot &slot) const;
	};
	struct Entry {
		Sums sums;
		int64_t kept_bytes = 0; // of the row as it is in the file; 0 when there is none yet
		bool changed = false;
	};
	struct Known {
		int64_t id;
		int64_t last_minute;      // in which it was seen, as it was written
		int64_t described_minute; // when its changing facts were written
	};

	Entry &entry(const Slot &slot);
	bool is_kept(const Slot &slot);
	Known *find(KeyKind kind, const std::string &application, const std::string &name);
	Known &make(const KeySums &key, int64_t minute);
	Known &known(KeySums &key, int64_t minute);
	int64_t &minute_keys(KeyKind kind, int64_t minute);
	void describe(Known &known, const KeyFacts &facts, int64_t minute);
	void add_use(const KeySums &key, int64_t id, int64_t action, int64_t hour);
	void write(const Slot &slot, Entry &entry);
	void leave_old();
	void keep_counters();
	bool remove_oldest_of(const char *table, const char *column, int64_t kind, int64_t before);
	bool remove_rows(const char *table, const char *column, int64_t before);
	bool remove_oldest();
	void limit_keys(int64_t kind);
	bool sweep_keys(int64_t before_hour);

	Database &database_;
	Statement find_key_, insert_key_, seen_key_, describe_key_, count_keys_;
	std::array<Statement, 3> read_, write_; // by table
	Statement keep_counter_;
	std::unordered_map<Slot, Entry, SlotHash> entries_;
	std::vector<std::pair<Slot, Entry *>> changed_;
	std::unordered_map<std::string, Known> known_;                  // by kind, application and name
	std::map<int64_t, std::array<int64_t, key_kinds>> minute_keys_; // minute -> keys seen, -1 for not counted yet
	int64_t hour_ = 0;                                              // the latest
	size_t hour_uses_ = 0;                                          // entries of uses made in it
	int64_t summed_id_, last_id_, last_key_, bytes_;
	bool behind_ = true;
	int64_t swept_minute_ = 0, swept_key_ = 0;
	Clock::time_point written_at_{};
	Clock::duration write_time_{};
};

} // namespace quorbit
