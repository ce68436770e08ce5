// The reading half of the store, for the command line. Everything comes straight from the file; the daemon need not
// run.
#pragma once

#include "store/store.h"

#include <functional>
#include <list>

namespace quorbit {

// One line of a list of actions.
struct ActionRow {
	int64_t id = 0;
	int64_t received_ms = 0; // wall clock, at the action's end
	int64_t process = 0;
	std::string application, name;
	int64_t duration_ms = 0, database_ms = 0, cache_ms = 0, external_ms = 0, code_ms = 0;
	int64_t status = 0; // 0 for a command-line run
	bool error = false;
};

struct StoredAction {
	ActionRow row;
	Action action;
};

struct ApplicationRow {
	std::string name;
	int64_t query_ms = 0, query_process = 0; // 0 for never
	std::string sapi, php_version, given;
	int64_t packet_ms = 0, packet_process = 0, packets = 0;
};

// An order of a thread profile.
struct ProfileRow {
	int64_t id = 0;
	std::string application;
	int64_t seconds = 0, ordered_ms = 0;
	int64_t started_ms = 0, process = 0; // 0 while it waits
};

// Every function throws SqliteError.
class StoreReader {
public:
	// `for_orders`: profile orders are to be written too. Throws also when the file has another version's layout or
	// none yet.
	explicit StoreReader(const std::string &path, bool for_orders = false);

	// The newest actions, newest first; of one application only when its name is given.
	std::vector<ActionRow> newest(int64_t most, const std::string &application);
	// The actions after this id, oldest first.
	std::vector<ActionRow> after(int64_t id, const std::string &application);
	int64_t last_id();
	// Calls on_row for every action received since then.
	void each_since(
		int64_t wall_ms, const std::string &application, const std::function<void(const ActionRow &)> &on_row);

	std::optional<StoredAction> action(int64_t id);
	// The other actions, at most 100, of the same transaction or with one of these tracer ids, oldest first.
	std::vector<StoredAction> related(const StoredAction &to, const std::vector<std::string> &tracer_ids);

	std::vector<ApplicationRow> applications();

	// Orders a profile. It waits, runs and can be printed for as long as this object and its process live; what ends
	// them ends it too, and lets its events go.
	int64_t order_profile(const std::string &application, int64_t seconds);
	// Ends the order, whether it has been started or not; its events stay while this object lives.
	void cancel_order(int64_t id);
	// Ends every order of the application, whoever gave it. Returns how many there were.
	int64_t stop_profiles(const std::string &application);
	// Orders that nobody has ended, in the order in which they were given; one of which the time is over counts until
	// its client has printed it.
	std::vector<ProfileRow> open_profiles();
	// Whether somebody has ended it early.
	bool order_ended(int64_t id);
	// The process that started it and when; nothing while it waits.
	std::optional<std::pair<int64_t, int64_t>> order_start(int64_t id);
	// Calls on_event for each event of the application received since then, thread by thread, in the order in which
	// they came.
	void each_profile_event(
		const std::string &application, int64_t since_ms, const std::function<void(const ProfileEvent &)> &on_event);

private:
	std::vector<ActionRow> rows(Statement &select);
	Database database_;
	std::list<OrderLock> orders_;
};

} // namespace quorbit
