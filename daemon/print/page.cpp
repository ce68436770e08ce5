// Lines and tables of a page.
#include "print/page.h"

#include "facts/trace.h"

#include <utility>
#include <algorithm>

namespace quorbit {

namespace {

constexpr size_t entry_lines = 6;
constexpr size_t stack_frames = 20;
constexpr size_t title_columns = 14;
constexpr size_t margin = 2 + title_columns + 1;

} // namespace

void Page::section(const std::string &title)
{
	out += "\n" + title + "\n";
}

size_t Page::text_columns() const
{
	return width_ - margin;
}

void Page::lines(std::string_view title, const std::vector<std::string> &texts)
{
	std::string before = "  " + cut(printable(title), title_columns);
	before.append(margin - text_width(before), ' ');
	for (const std::string &text : texts) {
		out += before + text + "\n";
		before.assign(margin, ' ');
	}
}

void Page::entry(std::string_view title, std::string_view text)
{
	lines(title, wrap(printable(text), text_columns(), most(entry_lines)));
}

void Page::rows(const std::vector<Column> &columns, std::vector<std::vector<std::string>> cells, size_t most)
{
	size_t over = cells.size() - std::min(cells.size(), most);
	cells.resize(cells.size() - over);
	for (const std::string &line : table_lines(columns, cells, width_ - 2)) out += "  " + line + "\n";
	left_out(over);
}

void Page::stack(std::string_view json)
{
	std::string_view title = "stack";
	auto frames = read_stack(json);
	for (size_t i = 0; i < frames.size() && i < most(stack_frames); i++) entry(std::exchange(title, ""), frames[i]);
}

void Page::left_out(size_t count)
{
	if (count) out += "  ... and " + std::to_string(count) + " more\n";
}

} // namespace quorbit
