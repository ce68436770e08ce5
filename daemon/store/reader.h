// The questions that commands, page and exports ask about what was received, and the answers: plain structs, which say
// nothing of the database that keeps it. A store answers them by implementing Reader.
#pragma once

#include "base/clock.h"
#include "facts/keys.h"
#include "store/action_row.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quorbit {

// --- questions

// Wall clock, milliseconds since 1970: from_ms <= time < until_ms.
struct TimeRange {
	int64_t from_ms = 0;
	int64_t until_ms = INT64_MAX;
};

// Which actions. What is left at its default lets all through. Globs have *, ? and [...], and mind case. `host` is the
// name of one, here and in the other questions; a store of one host has nothing of any other.
struct ActionFilter {
	TimeRange range = {}; // in which they were received
	std::string application = {};
	int64_t after_id = 0; // only those with a greater id
	std::string name_glob = {}, path_glob = {};
	bool errors = false;                        // only those that have one
	int64_t least_us = 0, below_us = INT64_MAX; // least_us <= duration < below_us
	std::string host = {};
};

enum class ActionOrder { newest, oldest, slowest };

struct ActionQuestion {
	ActionFilter filter;
	ActionOrder order = ActionOrder::newest;
	int64_t most = 20;
};

// What sums are made by. An application has the sums of its actions, a host those of its applications.
enum class SumKey { action, path, query, error, external, cache, component, application, host };

enum class SumOrder { total, count, average, p95, p99, errors, statements }; // the largest first

// "action", "path", ... and "total", "count", ...: the words of commands, addresses and JSON; and back.
const char *name_of(SumKey key);
const char *name_of(SumOrder order);
std::optional<SumKey> sum_key_of(std::string_view name);
std::optional<SumOrder> sum_order_of(std::string_view name);

// Which sums. What is left at its default lets all through.
struct SumFilter {
	// Sums are kept by minute and, for longer, by hour: a range is widened to whole minutes, and where only hours are
	// left to whole hours. SumAnswer::range says what became of it.
	TimeRange range;
	std::string application = {};
	std::string name_glob = {}; // of the key's name: *, ? and [...]
	int64_t id = 0;             // only the key of this number (KeyFacts::id)
	// Only what belongs to the key of this number, by hours: of an action its queries, errors, outgoing calls and
	// caches; of each of those the actions it was in. Sums are then of the two together: `count` is the number of such
	// actions that had it, `statements` how often it was in them, the total and the histogram the time that it took of
	// each.
	int64_t within = 0;
	std::string host = {};
};

struct SumQuestion {
	SumKey key = SumKey::action;
	SumFilter filter = {};
	SumOrder order = SumOrder::total;
	int64_t most = 1000;
	int64_t trend_points = 0; // of each row: its figures in that many equal parts of the range
};

// The sums of all keys that the filter lets through, part by part of a range.
struct SeriesQuestion {
	SumKey key = SumKey::action;
	SumFilter filter = {};
	int64_t step_ms = minute_ms; // a multiple of a minute; where only hours are left, an hour is one part
};

// What the machine did: load, memory, processes of PHP.
struct MachineQuestion {
	TimeRange range;
	int64_t step_ms = minute_ms;
	std::string host = {};
};

// The other actions of an action's transaction, and those with one of these tracer ids.
struct RelatedQuestion {
	int64_t id = 0; // the action itself, which is not among the answers
	std::string transaction_id;
	std::vector<std::string> tracer_ids;
	int64_t most = 100;
	int64_t most_bytes = int64_t{32} << 20; // of packets that are read
};

struct ProfileQuestion {
	std::string application;
	int64_t after_id = 0; // only events that were numbered after it: clocks can be set back
};

// --- answers

struct StoredAction {
	ActionRow row;
	Action action;
};

struct TrendPoint {
	int64_t count = 0, errors = 0, total_us = 0;
};

struct SumRow {
	KeyFacts key;
	Sums sums;
	std::vector<TrendPoint> trend = {}; // oldest first; as many points as were asked for
};

struct SumAnswer {
	TimeRange range;          // that the sums are of
	std::vector<SumRow> rows; // in the order asked for
	Sums all;                 // of all keys, also those beyond the number asked for
	int64_t left_out = 0;     // keys beyond it
};

struct SeriesPoint {
	int64_t at_ms = 0, step_ms = 0;
	Sums sums;
};

// A pool of PHP processes: of FPM its name, else the server's: "apache2", "php".
struct PoolRow {
	std::string name;
	double busy = 0, idle = 0; // on average
	int64_t most_busy = 0;
	double waiting = 0; // connections of FPM's that no process has accepted, on average
	int64_t most_waiting = 0;
};

struct MachineRow {
	int64_t at_ms = 0;
	std::string host;
	double load = 0; // of one minute, on average
	int64_t memory_bytes = 0, available_bytes = 0;
	std::vector<PoolRow> pools;
};

// A release that somebody marked. An application of "" stands for all.
struct ReleaseRow {
	int64_t at_ms = 0;
	std::string name, application;
};

struct ApplicationRow {
	std::string name;
	int64_t query_ms = 0, query_process = 0; // 0 for never
	std::string sapi, php_version, given;
	int64_t packet_ms = 0, packet_process = 0, packets = 0;
};

// A process and the application that it sent packets of.
struct SenderRow {
	int64_t process = 0;
	std::string application;
	int64_t packet_ms = 0, packets = 0; // of the newest; how many
};

// How far a store has come. Whoever asks again and again for what is new compares both: ids begin anew in a store that
// was made in place of another.
struct StorePosition {
	int64_t identity = 0; // of the store, whatever file it is in; 0 for one that is never replaced
	int64_t last_id = 0;  // of the newest action, 0 when there is none
};

// Packets of an application that were not stored, or not in full, and why (store/store_writer.h).
struct DroppedRow {
	std::string application, reason;
	int64_t count = 0;
};

// The settings of ApplicationRow::given, whose lines are "key=value".
Settings parse_given(std::string_view given);

// --- who answers

// Every function throws std::runtime_error with a message for the operator when the store cannot be read.
class Reader {
public:
	virtual ~Reader() = default;

	// Calls on_row for each action of the answer, in its order.
	virtual void each_action(const ActionQuestion &question, const std::function<void(const ActionRow &)> &on_row) = 0;
	// The same as a list.
	std::vector<ActionRow> actions(const ActionQuestion &question)
	{
		std::vector<ActionRow> rows;
		each_action(question, [&rows](const ActionRow &row) { rows.push_back(row); });
		return rows;
	}
	virtual StorePosition position() = 0;

	// One action in full; nothing when there is none of that id.
	virtual std::optional<StoredAction> action(int64_t id) = 0;
	// Calls on_action for each, one at a time in memory: those of the transaction first, oldest first.
	virtual void each_related(
		const RelatedQuestion &question, const std::function<void(const StoredAction &)> &on_action) = 0;

	virtual SumAnswer sums(const SumQuestion &question) = 0;
	// Oldest first; parts in which nothing was are left out.
	virtual std::vector<SeriesPoint> series(const SeriesQuestion &question) = 0;
	// One key of a kind by its number; nothing when it is not known any more.
	virtual std::optional<KeyFacts> key(SumKey key, int64_t id) = 0;
	// Oldest first, by host.
	virtual std::vector<MachineRow> machine(const MachineQuestion &question) = 0;
	// Oldest first; those of all applications, and those of this one unless it is "".
	virtual std::vector<ReleaseRow> releases(const std::string &application) = 0;

	// What was not stored of what came in that time, by application and reason, most first; `application` "" for all.
	virtual std::vector<DroppedRow> dropped(const TimeRange &range, const std::string &application) = 0;

	// By name.
	virtual std::vector<ApplicationRow> applications() = 0;
	// The names of those whose data it has.
	virtual std::vector<std::string> hosts() = 0;
	// Which processes sent what came in that time; read at once, so it should be no more than some minutes.
	virtual std::vector<SenderRow> senders(const TimeRange &range) = 0;

	// Calls on_event for each event of a thread profile, thread by thread, in the order in which they came.
	virtual void each_profile_event(
		const ProfileQuestion &question, const std::function<void(const ProfileEvent &)> &on_event) = 0;
};

} // namespace quorbit
