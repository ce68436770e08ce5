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

// How long an order waits for a process to ask: each asks at most once a minute.
constexpr int64_t profile_wait_ms = 70000;

struct ProfileOrder {
	int64_t id = 0;
	std::string application;
	int64_t seconds = 0;
};

struct ProfileSession {
	ProfileOrder order;
	int64_t end_second = 0; // monotonic clock; 0 until a process has asked
	int64_t started_ms = 0; // wall clock
	int64_t process = 0;    // that started it
	bool told = false;      // whether take_started() has given it away
};

// All functions may be called from any thread.
class ProfileSessions {
public:
	// The orders that now wait. Those that are not among them and have not started are dropped; started ones go on.
	void set_waiting(const std::vector<ProfileOrder> &orders);

	// For a process that asks for the configuration of `application`: the monotonic second at which its profile ends,
	// or nothing. The first to ask starts the profile; those who ask while it runs get the same end.
	std::optional<int64_t> end_second(
		std::string_view application, int64_t process, int64_t now_second, int64_t now_wall_ms);

	// The sessions that have started since the last call.
	std::vector<ProfileSession> take_started();

private:
	std::mutex mutex_;
	std::vector<ProfileSession> sessions_;
};

// Seconds of the clock that agents compare a profile's end with.
int64_t monotonic_second();

} // namespace quorbit
