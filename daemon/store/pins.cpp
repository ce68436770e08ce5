// Thinning out.
#include "store/pins.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace quorbit {

namespace {

constexpr int64_t hours_of_day = 24, hours_of_week = 168, hours_ever = INT64_MAX;

} // namespace

void Pins::keep(Pin pin)
{
	bytes_ += pin.bytes;
	pins_.push_back(std::move(pin));
}

void Pins::drop(Pin &pin, std::vector<int64_t> &gone)
{
	bytes_ -= pin.bytes;
	gone.push_back(std::exchange(pin.id, 0));
}

void Pins::erase_dropped()
{
	std::erase_if(pins_, [](const Pin &pin) { return pin.id == 0; });
}

// Those of which every key has another one in the same time.
void Pins::thin_within(int64_t hours, bool slowest, std::vector<int64_t> &gone)
{
	std::unordered_map<uint64_t, int> counts;
	auto count = [&](const Pin &pin, int64_t key) -> int & {
		return counts[static_cast<uint64_t>(key) << 24 ^ static_cast<uint64_t>(pin.hour / hours)];
	};
	for (const Pin &pin : pins_) {
		for (int64_t key : pin.example.keys) count(pin, key)++;
	}
	for (Pin &pin : pins_) {
		if (bytes_ <= enough_bytes()) break;
		if (pin.example.slowest != slowest) continue;
		if (std::any_of(
				pin.example.keys.begin(), pin.example.keys.end(), [&](int64_t key) { return count(pin, key) == 1; }))
			continue;
		for (int64_t key : pin.example.keys) count(pin, key)--;
		drop(pin, gone);
	}
	erase_dropped();
}

void Pins::thin_keys(const std::function<int64_t(int64_t key)> &lifetime, std::vector<int64_t> &gone)
{
	struct Rank {
		int64_t lifetime, key;
		size_t place;
	};
	std::vector<Rank> ranks;
	for (size_t place = 0; place < pins_.size(); place++) {
		Rank rank{-1, 0, place};
		for (int64_t key : pins_[place].example.keys) {
			if (const int64_t of_key = lifetime(key); of_key > rank.lifetime) rank = {of_key, key, place};
		}
		ranks.push_back(rank);
	}
	std::sort(ranks.begin(), ranks.end(),
		[](const Rank &a, const Rank &b) { return std::pair(a.lifetime, -a.key) < std::pair(b.lifetime, -b.key); });
	for (const Rank &rank : ranks) {
		if (bytes_ <= enough_bytes()) break;
		drop(pins_[rank.place], gone);
	}
	erase_dropped();
}

std::vector<int64_t> Pins::thin(const std::function<int64_t(int64_t key)> &lifetime)
{
	std::vector<int64_t> gone;
	if (!is_over()) return gone;
	for (int64_t hours : {int64_t{1}, hours_of_day, hours_of_week, hours_ever}) {
		for (bool slowest : {false, true}) {
			if (bytes_ > enough_bytes()) thin_within(hours, slowest, gone);
		}
	}
	if (bytes_ > enough_bytes()) thin_keys(lifetime, gone);
	return gone;
}

int64_t Pins::drop_oldest()
{
	if (pins_.empty()) return 0;
	const Pin pin = std::move(pins_.front());
	pins_.pop_front();
	bytes_ -= pin.bytes;
	return pin.id;
}

} // namespace quorbit
