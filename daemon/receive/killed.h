// Requests that end with their process: no packet ever comes of them, and the board has the last that is known.
#pragma once

#include "base/log.h"
#include "host/board_file.h"
#include "store/store_writer.h"

#include <map>
#include <string>
#include <vector>

namespace quorbit {

// The metric packet of a request whose thread has gone: its error says that it was killed and in what, and its lists
// have the last watched calls. `now_us` is when it was found gone, by the monotonic clock.
std::string packet_of_killed(const BoardSlot &slot, int64_t now_us);

// Looks for threads that have gone with a request open. One thread at a time.
class KilledWatch {
public:
	KilledWatch(std::string board_path, uint32_t slots, StoreWriter &writer)
		: board_(std::move(board_path), slots), writer_(writer)
	{
	}

	// To be called about once a second: hands every request whose thread has gone to the writer, and frees the slots of
	// all that have. What somebody else writes there costs time in proportion to the slots, and no waiting. Sees to it
	// that there is a board at all.
	void look();

private:
	void keep_board();
	void free_strangers(const BoardFile &board, const std::vector<uint64_t> &claims);
	void report(const BoardSlot &slot);

	BoardKeeper board_;
	StoreWriter &writer_;
	LogLimit log_;
	bool has_failed_ = false; // to make a board, and has said so
	int64_t looks_ = 0;
	std::map<uint32_t, uint64_t> strangers_; // by slot: claims that no thread owned at the last look
};

} // namespace quorbit
