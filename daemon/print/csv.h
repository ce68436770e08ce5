// Lines for spreadsheets (https://www.rfc-editor.org/rfc/rfc4180).
#pragma once

#include <string>

namespace quorbit {

// A text as one cell, in quotes, harmless for a terminal.
std::string csv_cell(const std::string &text);

} // namespace quorbit
