// Standard output: the answer. Standard error: what is said beside it.
#pragma once

#include <string>
#include <string_view>

namespace quorbit {

void put(std::string_view text);
// One line of progress or of what went wrong; whatever it quotes is made printable.
void tell(const std::string &line);

// Columns to print a page in: the terminal's, within reason; 100 where there is none.
size_t output_width();
// The same for lists of names. Without a terminal there is no limit: whoever filters the lines looks for whole names.
size_t list_width();

} // namespace quorbit
