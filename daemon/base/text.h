// Text for terminals and programs: escaping, cutting, wrapping, tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// Bytes of a script as UTF-8: as they are when they are that, else read as Latin-1, as scripts of old often are.
std::string text_of_bytes(std::string_view bytes);

// The text as UTF-8: every invalid byte becomes U+FFFD.
std::string valid_utf8(std::string_view text);

// The text as one harmless line for a terminal: controls, characters of direction or without width, and invalid bytes
// are written as escapes (\n, \x1b, \u202e, \U000e0041).
std::string printable(std::string_view text);

// Columns of the terminal; 0 when standard output is not a terminal.
size_t terminal_width();

// Rows of the terminal; 0 when standard output is not a terminal.
size_t terminal_height();

// Columns that printable text takes: wide characters take two, those that combine none.
size_t text_width(std::string_view text);

// Printable text in at most `width` columns; what is cut is marked by an ellipsis.
std::string cut(std::string_view text, size_t width);

// The same, but what is cut is in the middle: names differ at both ends.
std::string cut_middle(std::string_view text, size_t width);

// Printable text without leading spaces as lines of at most `width` columns, broken at spaces where there are some; an
// ellipsis ends what does not fit into `most` lines.
std::vector<std::string> wrap(std::string_view text, size_t width, size_t most);

// Values as one bar each, "▁▄█": the highest for the largest value, the lowest for 0; "" of none.
std::string sparkline(const std::vector<int64_t> &values);

// Whether standard output is a terminal whose locale has such characters.
bool terminal_has_bars();

struct Column {
	std::string title;
	bool right = false;   // alignment
	bool shrinks = false; // gives way when the table is too wide
};

// Rows of printable cells under their titles, two spaces between columns. Where that takes more than `width` columns,
// the columns that shrink give way, the widest first; cells are cut in the middle.
std::vector<std::string> table_lines(
	const std::vector<Column> &columns, const std::vector<std::vector<std::string>> &rows, size_t width);
// The same as one text, each line ended by a line feed.
std::string table(
	const std::vector<Column> &columns, const std::vector<std::vector<std::string>> &rows, size_t width = SIZE_MAX);

// "37%" of the whole, from 0 to 999; "-" when the total is 0.
std::string percent(int64_t part, int64_t whole);

// A duration for people: "9999 ms", "12.3 s", "1234 s".
std::string duration_text(int64_t ms);
// The same with a tenth below ten milliseconds: "0.4 ms".
std::string fine_duration_text(int64_t us);

} // namespace quorbit
