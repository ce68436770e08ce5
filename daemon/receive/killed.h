// Requests that end with their process: no packet ever comes of them, and the board has the last that is known.
#pragma once

#include "host/board_slot.h"
#include "store/store_writer.h"

#include <string>

namespace quorbit {

// The metric packet of a request whose thread has gone: its error says that it was killed and in what, and its lists
// have the last watched calls. `now_us` is when it was found gone, by the monotonic clock.
std::string packet_of_killed(const BoardSlot &slot, int64_t now_us);

// Reports, to the writer, every request on the board whose thread has gone, and frees the slots of all that have.
void report_killed(const std::string &board_path, StoreWriter &writer);

} // namespace quorbit
