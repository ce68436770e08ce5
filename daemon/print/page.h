// A page of titled entries, as `quorbit show ID` prints it.
#pragma once

#include "base/text.h"

namespace quorbit {

class Page {
public:
	// In `width` columns. `full`: nothing is left out.
	Page(size_t width, bool full) : width_(width), full_(full) {}

	std::string out;

	size_t width() const { return width_; }
	bool full() const { return full_; }
	// This many lines, rows or columns; all of them when nothing is to be left out.
	size_t most(size_t count) const { return full_ ? SIZE_MAX : count; }

	// A line of its own after an empty one.
	void section(const std::string &title);
	// "  title          text", the text wrapped below itself, six lines of it as a rule. Texts may hold anything.
	void entry(std::string_view title, std::string_view text);
	// The same for lines that are printable and fit already.
	void lines(std::string_view title, const std::vector<std::string> &texts);
	// A table of printable cells, the first `most` rows of it.
	void rows(const std::vector<Column> &columns, std::vector<std::vector<std::string>> cells, size_t most);
	// The frames of a stack as agents write it (JSON), one per line.
	void stack(std::string_view json);
	// "  ... and 3 more" when some were left out.
	void left_out(size_t count);

	// Columns that are left for an entry's text.
	size_t text_columns() const;

private:
	size_t width_;
	bool full_;
};

} // namespace quorbit
