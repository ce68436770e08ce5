// A thread profile's events as calls that begin and end within each other, and their sums.
#pragma once

#include "facts/packet.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quorbit {

// One call begins or ends.
struct ProfileStep {
	int64_t thread = 0;
	int64_t at_ms = 0; // monotonic clock; never before the step before it of the same thread
	bool enter = false;
	size_t function = 0; // its place in ProfileWalk::names()
};

// Takes events thread by thread and gives steps of which each end belongs to the last begin that is open: what exit, a
// fatal error or the end of the profile kept from leaving ends with the call around it, or with its thread's last
// event.
class ProfileWalk {
public:
	// The steps that follow from the next event; the reference holds until the next call.
	const std::vector<ProfileStep> &add(const ProfileEvent &event);
	// Those after the last one.
	const std::vector<ProfileStep> &finish();

	// The functions by their places; an action is one, too: "action Web".
	const std::vector<std::string> &names() const { return names_; }
	int64_t events() const { return events_; }
	int64_t threads() const { return threads_; }
	int64_t actions() const { return actions_; }
	// Calls that the profile's end cut off.
	int64_t cut_off() const { return cut_off_; }

private:
	void leave_down_to(size_t depth);
	void end_thread();

	std::vector<ProfileStep> steps_;
	std::map<std::string, size_t> places_;
	std::vector<std::string> names_;
	std::vector<size_t> open_;
	int64_t thread_ = 0, last_ms_ = 0;
	int64_t events_ = 0, threads_ = 0, actions_ = 0, cut_off_ = 0;
};

struct CallSum {
	int64_t calls = 0;
	int64_t own_ms = 0, total_ms = 0; // without and with what it called; of a recursive function the outermost call's
};

// Calls by the path that led to them.
class CallTree {
public:
	struct Node {
		size_t parent = 0; // of the root: itself
		size_t function = 0;
		CallSum sum;
	};

	CallTree() : nodes_(1), open_(1) {}

	void add(const ProfileStep &step);

	// Parents come before what they called; the first is not a call but the root of all.
	const std::vector<Node> &nodes() const { return nodes_; }
	// By function; its size is that of the highest place seen.
	const std::vector<CallSum> &functions() const { return functions_; }
	// Time of all calls that nothing called.
	int64_t total_ms() const { return nodes_[0].sum.total_ms; }

private:
	struct Open {
		size_t node = 0;
		int64_t at_ms = 0, called_ms = 0;
	};
	std::vector<Node> nodes_;
	std::vector<Open> open_; // the first is the root's
	std::map<std::pair<size_t, size_t>, size_t> children_;
	std::vector<CallSum> functions_;
	std::vector<int64_t> depths_; // open calls of each function
};

} // namespace quorbit
