// Characters on a terminal: which do harm, and how many cells one takes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorbit {

struct CodePoint {
	uint32_t value;
	size_t length; // bytes; 0 when the byte begins no valid sequence
};

// The character at this byte of UTF-8.
CodePoint decode_utf8(std::string_view text, size_t at);

// Characters that move the cursor, change the terminal's state or the direction of what follows, or take no room, so
// that two texts that differ look the same: controls, bidirectional and zero-width formatting, tags.
bool is_harmful(uint32_t value);

// Cells of a character: 0 for one that combines with the one before it, 2 for a wide one
// (https://www.unicode.org/reports/tr11/), else 1.
size_t cells_of(uint32_t value);

} // namespace quorbit
