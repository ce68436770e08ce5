// The packet of a request that ended with its process, made of what the board last had of it.
#pragma once

#include "host/board_slot.h"

#include <string>

namespace quorbit {

// Why a process or thread is gone, as far as somebody says it.
enum class KillReason {
	unknown,
	signal,  // it was ended by one
	sibling, // another thread of its process was
	timeout, // FPM ended it: request_terminate_timeout
	memory,  // the kernel did, which had none left
};

struct KillCause {
	KillReason reason = KillReason::unknown;
	int signal = 0; // of the first two that have one
};

// What becomes of "The process ended ...": how it did, as far as that is known, and the last thing known of its
// request, without what differs from one such request to the next.
std::string end_of(const BoardSlot &slot, const KillCause &cause);

// A metric packet: its error says that it was killed and in what, and its lists have the last watched calls. `ended_us`
// is when it was found gone, by the monotonic clock.
std::string packet_of_killed(const BoardSlot &slot, const KillCause &cause, int64_t ended_us);

} // namespace quorbit
