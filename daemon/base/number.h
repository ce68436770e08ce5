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

// No true sum comes near: as microseconds they are 146,000 years. Two of them can be added.
constexpr int64_t most_sum = (int64_t{1} << 62) - 1;

// Adds a number that is not negative, and stays at `most` instead of beyond it.
constexpr void add_bounded(int64_t &sum, int64_t more, int64_t most = most_sum)
{
	sum = std::min(sum + std::min(more, most), most);
}

} // namespace quorbit
