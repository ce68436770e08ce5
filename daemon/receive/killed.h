// Requests that end with their process: no packet ever comes of them, and the board has the last that is known.
#pragma once

#include "base/log.h"
#include "host/board_slot.h"
#include "store/store_writer.h"

#include <string>

namespace quorbit {

// The metric packet of a request whose thread has gone: its error says that it was killed and in what, and its lists
// have the last watched calls. `now_us` is when it was found gone, by the monotonic clock.
std::string packet_of_killed(const BoardSlot &slot, int64_t now_us);

// Looks for threads that have gone with a request open. One thread at a time.
class KilledWatch {
public:
	KilledWatch(std::string board, StoreWriter &writer) : board_(std::move(board)), writer_(writer) {}

	// To be called about once a second: hands every request whose thread has gone to the writer, and frees the slots of
	// all that have. What somebody else writes there costs time in proportion to the slots, and no waiting.
	void look();

private:
	void report(const BoardSlot &slot);

	std::string board_; // its path
	StoreWriter &writer_;
	LogLimit log_;
	int64_t looks_ = 0;
};

} // namespace quorbit
