// Actions that stay as examples of what the sums tell, long after others of their time have made room.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

namespace quorbit {

// What the sums of an hour name an action for: as the slowest, the newest or one by chance of these keys
// (KeyFacts::id).
struct ExampleOf {
	bool slowest = false; // of one of them
	std::vector<int64_t> keys;
};

struct Pin {
	int64_t id = 0;
	int64_t bytes = 0; // that it takes in the file
	int64_t hour = 0;  // since 1970
	ExampleOf example;
};

// Examples within a bound. Beyond it they are thinned out: first within an hour, then within a day, then a week, so
// that each key keeps one of each as long as there is room; then until each key has one; at last keys go that were seen
// for the shortest time, of these the youngest first. So a flood of keys takes nobody's example.
class Pins {
public:
	explicit Pins(int64_t most_bytes) : most_bytes_(most_bytes) {}

	// An action that is younger than all that were kept before.
	void keep(Pin pin);
	bool is_over() const { return bytes_ > most_bytes_; }
	// Lets an eighth go when there are too many; returns their ids. `lifetime` says of a key for how long it was seen.
	std::vector<int64_t> thin(const std::function<int64_t(int64_t key)> &lifetime);
	// The oldest goes, whatever it is an example of; 0 when there is none.
	int64_t drop_oldest();

private:
	void thin_within(int64_t hours, bool slowest, std::vector<int64_t> &gone);
	void thin_keys(const std::function<int64_t(int64_t key)> &lifetime, std::vector<int64_t> &gone);
	void drop(Pin &pin, std::vector<int64_t> &gone);
	void erase_dropped();
	int64_t enough_bytes() const { return most_bytes_ - most_bytes_ / 8; }

	const int64_t most_bytes_;
	int64_t bytes_ = 0;
	std::deque<Pin> pins_; // oldest first
};

} // namespace quorbit
