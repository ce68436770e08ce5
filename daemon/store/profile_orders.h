// Orders for thread profiles, as the command line leaves them in the store for the daemon.
#pragma once

#include "store/followed_store.h"
#include "store/order_lock.h"

#include <list>
#include <optional>
#include <utility>
#include <vector>

namespace quorbit {

// An order of a thread profile.
struct ProfileRow {
	int64_t id = 0;
	std::string application;
	int64_t seconds = 0, ordered_ms = 0;
	int64_t started_ms = 0, process = 0; // 0 while it waits
};

// Every function throws SqliteError.
class ProfileOrders {
public:
	// Throws also when the file has another version's layout or none yet.
	explicit ProfileOrders(const std::string &path);

	// Orders a profile and returns its id. It waits, runs and can be printed for as long as this object and its process
	// live; what ends them ends it too, and lets its events go.
	int64_t order(const std::string &application, int64_t seconds);
	// Ends the order, whether it has been started or not; its events stay while this object lives.
	void cancel(int64_t id);
	// Ends every order of the application, whoever gave it. Returns how many there were.
	int64_t stop(const std::string &application);
	// Whether somebody has ended it early, or made a new store in which it is not.
	bool ended(int64_t id);
	// The number of the newest event of any profile.
	int64_t last_event() { return counter("profile_event"); }
	// The process that started it and when; nothing while it waits.
	std::optional<std::pair<int64_t, int64_t>> start_of(int64_t id);

private:
	int64_t counter(const std::string &name);

	FollowedStore store_;
	const std::string path_;
	const int64_t identity_; // of the store that has the orders
	std::list<OrderLock> locks_;
};

// Orders of this store that nobody has ended, in the order in which they were given; one of which the time is over
// counts until its client has printed it. Throws SqliteError.
std::vector<ProfileRow> open_profiles(const std::string &path);

} // namespace quorbit
