// Requests that end with their process: no packet ever comes of them, and the board has the last that is known.
#pragma once

#include "base/log.h"
#include "host/board_file.h"
#include "host/oom_kills.h"
#include "host/server_logs.h"
#include "receive/killed_packet.h"
#include "store/store_writer.h"

#include <map>
#include <string>
#include <vector>

namespace quorbit {

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

	// Whether a request is kept back until the next look: nobody has said yet why its process ended.
	bool is_waiting() const { return !waiting_.empty(); }

private:
	struct Gone {
		uint32_t number; // of the slot
		uint64_t claim;
		BoardSlot slot;
	};
	void keep_board();
	void free_strangers(const BoardFile &board, const std::vector<uint64_t> &claims);
	std::map<int, KillCause> causes_of(const std::vector<Gone> &gone);
	void report(const BoardFile &board, const std::vector<Gone> &gone);
	void put(const BoardSlot &slot, const KillCause &cause, int64_t ended_us);

	BoardKeeper board_;
	StoreWriter &writer_;
	LogLimit log_;
	OomKills oom_kills_;
	ServerLogs logs_;
	bool has_failed_ = false; // to make a board, and has said so
	int64_t looks_ = 0;
	std::map<uint32_t, uint64_t> strangers_; // by slot: claims that no thread owned at the last look
	std::map<uint64_t, int64_t> waiting_;    // by claim: when it was found gone
};

} // namespace quorbit
