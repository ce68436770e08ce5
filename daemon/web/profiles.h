// Thread profiles that the page has ordered: waiting for a process, running, and there to be looked at. Safe to use
// from many threads.
#pragma once

#include "base/config.h"
#include "store/profile_orders.h"

#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace quorbit {

class Profiles {
public:
	static constexpr size_t most_open = 4; // that wait or run
	static constexpr size_t most_kept = 8; // the newest; the events of others go

	explicit Profiles(DaemonConfig config) : config_(std::move(config)) {}

	// Orders one and returns its number; 0 when too many wait or run. Throws std::runtime_error with a message for the
	// operator when no daemon answers or the store cannot be written.
	int64_t order(const std::string &application, int64_t seconds);
	// Ends one early; what has come of it stays. False when there is none of this number.
	bool end(int64_t id);
	// Takes one over that has been ordered, and has run for so many seconds.
	void adopt(std::unique_ptr<ProfileOrders> orders, int64_t id, const std::string &application, int64_t seconds);

	// Ends those for which no process has asked in time, and those that are through. To be called every few seconds.
	void look();

	// JSON: all, newest first; one with its calls, "" when there is none (docs/api.md).
	std::string list();
	std::string one(int64_t id);

private:
	enum class State { waiting, running, done, ended, unasked };

	struct Kept {
		std::unique_ptr<ProfileOrders> orders;
		int64_t id, seconds, ordered_ms, after_event;
		std::string application;
		State state = State::waiting;
		int64_t started_ms = 0, process = 0;
	};

	void look(Kept &kept) const;
	void finish(Kept &kept, State state) const;
	Kept *find(int64_t id);
	static std::string head(const Kept &kept);

	const DaemonConfig config_;
	std::mutex mutex_;
	std::list<Kept> kept_; // newest first
};

} // namespace quorbit
