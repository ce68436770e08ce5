// Numbers in texts that others wrote.
#pragma once

#include <charconv>
#include <string_view>

namespace quorbit {

// Reads a decimal number that is the whole of a text. False when it is anything else or does not fit into `value`,
// which then may have been written or not.
template <typename Number>
bool parse_number(std::string_view text, Number &value)
{
	auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
	return failure == std::errc() && end == text.data() + text.size();
}

} // namespace quorbit
