// What one thread does now, decoded from its slot of the board (ext/zqp_board_layout.h), which others may have written.
#pragma once

#include "zqp_board_layout.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

struct BoardCall {
	zq_board_kind kind = ZQ_BOARD_NOTHING;
	std::string text; // what agents show of it: a statement without its values, and the like
	bool cut = false; // there was more of it
	int64_t begin_us = 0;
	int64_t duration_us = -1; // -1: it has not returned
};

struct BoardSlot {
	int process = 0, thread = 0;
	bool open = false;         // an action runs
	int64_t started_ticks = 0; // when the process started, in ticks since the host was; 0: not known
	int64_t begin_ms = 0;      // of the action, wall clock
	int64_t begin_us = 0;      // the same by the monotonic clock
	std::string application, method, path;
	std::string action;                           // its name by now, up to 192 bytes of it
	std::string function;                         // the outermost of the script's that runs; "": none
	std::array<int64_t, ZQ_BOARD_KINDS> counts{}; // watched calls so far, by kind
	int64_t calls = 0;
	std::vector<BoardCall> last;   // the last of them, oldest first
	std::optional<size_t> current; // which of these runs
	std::string stack;             // PHP's own, when it was asked for: a line for each frame, the innermost first
	int signal = 0;                // that the process has crashed with; 0: it has not
	uint32_t asked = 0, answered = 0, sequence = 0;
	int64_t read_us = 0; // when it was read from the board, by the monotonic clock: until then the action has lasted
};

// The slot that these bytes are, sizeof(zq_board_slot) of them, under this claim. Whatever they hold, texts stay within
// their fields and numbers within sense. Nothing when the slot is another thread's than the claim says.
std::optional<BoardSlot> read_board_slot(std::string_view bytes, uint64_t claim);

// "SQL", "cache", "HTTP" or "".
const char *name_of(zq_board_kind kind);

} // namespace quorbit
