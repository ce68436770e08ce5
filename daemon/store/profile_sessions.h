// Thread profiles on order: `quorbit profile` leaves an order in the store, the store's thread brings it here, and the
// next process of that application that asks for its configuration starts it.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// How long a client waits for a process to ask: each asks at most once a minute.
constexpr int64_t profile_wait_ms = 70000;

struct ProfileOrder {
	int64_t id = 0;
	std::string application;
	int64_t seconds = 0;
	int64_t started_ms = 0, process = 0; // when and by whom it was started; 0 while it waits
};

struct ProfileSession {
	ProfileOrder order;
	int64_t end_second = 0;     // monotonic clock; 0 until a process has asked
	int64_t stopped_second = 0; // monotonic clock; 0 unless its client ended it early
	bool told = false;          // whether take_started() has given it away
};

// All functions may be called from any thread.
class ProfileSessions {
public:
	// The orders whose clients wait. Of those that are not among them any more, one that has not started never does,
	// and one that runs ends now. One that is new here though it runs, because the daemon was restarted, goes on.
	void set_open(const std::vector<ProfileOrder> &orders, int64_t now_second, int64_t now_wall_ms);

	// For a process that asks for the configuration of `application`: the monotonic second at which its profile ends,
	// or nothing. The first to ask starts the profile; those who ask while it runs get the same end, and those who ask
	// after it was ended early a second that has passed: without one they would go on to the end that they were given.
	std::optional<int64_t> end_second(
		std::string_view application, int64_t process, int64_t now_second, int64_t now_wall_ms);

	// The orders that were started since the last call.
	std::vector<ProfileOrder> take_started();

private:
	std::mutex mutex_;
	std::vector<ProfileSession> sessions_;
};

// Seconds of the clock that agents compare a profile's end with.
int64_t monotonic_second();

} // namespace quorbit
