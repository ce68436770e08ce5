// Who may ask: the token of the link, the access token, and the sessions that they open. Safe to use from many threads.
#pragma once

#include "base/clock.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// 192 bits of the kernel's random numbers in hexadecimal digits. Throws std::system_error when there are none.
std::string random_token();

// Whether both are the same, in a time that depends on their lengths alone.
bool equal_secrets(std::string_view a, std::string_view b);

enum class Entry { granted, refused, paused };

struct Session {
	std::string cookie; // what the browser shows
	std::string token;  // what an order has to show beside it
};

class Sessions {
public:
	static constexpr size_t wrong_ones = 5; // within this time, and nobody gets in until it is over
	static constexpr int64_t pause_ms = minute_ms;
	static constexpr size_t most_sessions = 100;                  // the one unused for longest goes first
	static constexpr int64_t idle_ms = int64_t{12} * 3600 * 1000; // and a session unused for so long

	// `access_token` opens any number of sessions, link_token() one.
	explicit Sessions(std::string access_token) : access_token_(std::move(access_token)), link_token_(random_token()) {}

	const std::string &link_token() const { return link_token_; }
	const std::string &access_token() const { return access_token_; }

	// Whether this is the access token, as programs show it with every request. `now_ms` is any clock that does not go
	// back.
	Entry check(std::string_view token, int64_t now_ms);
	// A session for the access token or, once, for the link's.
	Entry open(std::string_view token, int64_t now_ms, Session &session);
	// The session of this cookie. One that is unknown counts as no attempt: it is too long to be guessed.
	std::optional<Session> find(const std::string &cookie, int64_t now_ms);
	void close(const std::string &cookie);

private:
	struct Kept {
		Session session;
		int64_t used_ms;
	};

	Entry judge(bool right, int64_t now_ms);
	void make_room(int64_t now_ms);

	const std::string access_token_, link_token_;
	std::mutex mutex_;
	bool link_used_ = false;
	std::vector<int64_t> wrong_; // when, the oldest first; of the last minute
	std::map<std::string, Kept> kept_;
};

} // namespace quorbit
