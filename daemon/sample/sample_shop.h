// The sample's two applications: what their pages do, and how long each step takes them.
#pragma once

#include "facts/wire.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quorbit {

// Numbers that are the same for the same seed everywhere: std's distributions are each library's own.
class SampleRandom {
public:
	explicit SampleRandom(uint64_t seed) : state_(seed) {}

	uint64_t next();
	double share(); // 0 <= share < 1
	int64_t below(int64_t most) { return static_cast<int64_t>(next() % static_cast<uint64_t>(most)); }
	// About so much: half of all within a fifth of it, the rest further off, more often above.
	int64_t about(double typical);

private:
	uint64_t state_;
};

// What is true of a moment of the day.
struct SampleMoment {
	int64_t at_ms = 0;        // wall clock
	double rush = 0;          // 0 at night to 1
	bool new_release = false; // shop 2.4.0 is out
	bool outage = false;      // the payment service does not answer
};

struct SamplePacket {
	int64_t at_ms, process;
	std::string body;
};

class SampleShop {
public:
	explicit SampleShop(uint64_t seed) : random_(seed) {}

	// The packets of the minute that begins then, oldest first.
	std::vector<SamplePacket> minute(const SampleMoment &moment);

	SampleRandom &random() { return random_; }

private:
	struct Page;
	static const Page pages[];

	std::string next_id();

	SampleRandom random_;
	int64_t ids_ = 0;
	std::vector<SamplePacket> packets_;
};

} // namespace quorbit
