// How long the store may be busy at once with what is not a packet.
#pragma once

#include <chrono>
#include <utility>

namespace quorbit {

// What a step may take; its commit comes on top.
constexpr auto step_time = std::chrono::milliseconds(15);

class StepTimer {
public:
	explicit StepTimer(std::chrono::milliseconds time) : end_(std::chrono::steady_clock::now() + time) {}
	// Something is done at each step, however long it takes.
	bool is_over() { return std::exchange(begun_, true) && std::chrono::steady_clock::now() >= end_; }

private:
	const std::chrono::steady_clock::time_point end_;
	bool begun_ = false;
};

} // namespace quorbit
