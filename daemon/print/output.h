// Standard output: the answer. Standard error: what is said beside it.
#pragma once

#include <string>
#include <string_view>

namespace quorbit {

void put(std::string_view text);
// One line of progress or of what went wrong; whatever it quotes is made printable.
void tell(const std::string &line);

// Columns to print in: the terminal's, within reason.
size_t output_width();

} // namespace quorbit
