// What PHP does at this moment, as `quorbit now` prints it. Ages are those that requests and calls had when their slots
// were read.
#pragma once

#include "base/json_text.h"
#include "host/board_slot.h"

#include <string>
#include <vector>

namespace quorbit {

// Processes, or of a server with threads its threads, of one pool.
struct PoolNow {
	std::string server, pool;
	int manager = 0;      // the parent of them all: two servers may have a pool of the same name; 0: none
	bool threads = false; // these are counted
	int64_t busy = 0, idle = 0;
	int64_t waiting = -1; // connections that nobody has accepted yet; -1: not known
};

struct Now {
	std::vector<BoardSlot> open; // those with an action, the oldest first
	std::vector<PoolNow> pools;
};

// Tables of `width` columns: a line for each request in flight, then the pools.
std::string now_text(const Now &now, size_t width);
// All of one slot: what it does, the last calls, PHP's stack when it has one.
std::string slot_text(const BoardSlot &slot, size_t width, bool full);

// What is amiss there: a line for each pool that has work waiting and nobody left to take it.
std::vector<std::string> now_findings(const Now &now);

Json now_json(const Now &now);
Json slot_json(const BoardSlot &slot);

} // namespace quorbit
