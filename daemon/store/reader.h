// The questions that commands, page and exports ask about what was received, and the answers: plain structs, which say
// nothing of the database that keeps it. A store answers them by implementing Reader.
#pragma once

#include "facts/packet.h"

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

// Which actions. What is left at its default lets all through.
struct ActionFilter {
	TimeRange range; // in which they were received
	std::string application;
	int64_t after_id = 0; // only those with a greater id
};

enum class ActionOrder { newest, oldest };

struct ActionQuestion {
	ActionFilter filter;
	ActionOrder order = ActionOrder::newest;
	int64_t most = 20;
};

// What actions are summed up by.
enum class SumKey { action }; // application and name

enum class SumOrder { total };

struct SumQuestion {
	ActionFilter filter;
	SumKey key = SumKey::action;
	SumOrder order = SumOrder::total; // the largest first
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
	TimeRange range;
};

// --- answers

// One line of a list of actions.
struct ActionRow {
	int64_t id = 0;
	int64_t received_ms = 0; // wall clock, at the action's end
	int64_t process = 0;
	std::string application, name;
	int64_t duration_ms = 0, database_ms = 0, cache_ms = 0, external_ms = 0, code_ms = 0;
	int64_t status = 0; // 0 for a command-line run
	bool error = false;
	std::optional<ExactFigures> exact = std::nullopt; // of them the times of the layers and the statements
	std::string path = {};                            // of the request, or ""

	// Microseconds: exact, or the milliseconds above.
	int64_t duration_us() const { return exact ? exact->duration_us : duration_ms * 1000; }
	int64_t database_us() const { return exact ? exact->database_us : database_ms * 1000; }
	int64_t cache_us() const { return exact ? exact->cache_us : cache_ms * 1000; }
	int64_t external_us() const { return exact ? exact->external_us : external_ms * 1000; }
	int64_t code_us() const { return exact ? exact->code_us() : code_ms * 1000; }
};

struct StoredAction {
	ActionRow row;
	Action action;
};

// Actions that share a key.
struct SumRow {
	std::string application, name;
	int64_t count = 0, errors = 0;
	int64_t total_us = 0, database_us = 0, cache_us = 0, external_us = 0, code_us = 0;
	int64_t p50_ms = 0, p95_ms = 0;      // durations that half and 95 % of them did not exceed
	int64_t statements = 0, counted = 0; // of those actions that tell their number
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
	// The id of the newest action, 0 when there is none.
	virtual int64_t last_id() = 0;

	// One action in full; nothing when there is none of that id.
	virtual std::optional<StoredAction> action(int64_t id) = 0;
	// Calls on_action for each, one at a time in memory: those of the transaction first, oldest first.
	virtual void each_related(
		const RelatedQuestion &question, const std::function<void(const StoredAction &)> &on_action) = 0;

	virtual std::vector<SumRow> sums(const SumQuestion &question) = 0;

	// What was not stored of what came in that time, by application and reason, most first; `application` "" for all.
	virtual std::vector<DroppedRow> dropped(const TimeRange &range, const std::string &application) = 0;

	// By name.
	virtual std::vector<ApplicationRow> applications() = 0;
	// Who sent what came in that time; read at once, so it should be no more than some minutes.
	virtual std::vector<SenderRow> senders(const TimeRange &range) = 0;

	// Calls on_event for each event of a thread profile, thread by thread, in the order in which they came.
	virtual void each_profile_event(
		const ProfileQuestion &question, const std::function<void(const ProfileEvent &)> &on_event) = 0;
};

} // namespace quorbit
