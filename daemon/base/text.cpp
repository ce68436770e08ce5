// UTF-8, cutting, wrapping and tables.
#include "base/text.h"

#include "base/cells.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/ioctl.h>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr std::string_view ellipsis = "\u2026";

void append_escape(std::string &out, uint32_t value, bool code_point)
{
	char escape[16];
	if (value == '\n')
		snprintf(escape, sizeof escape, "\\n");
	else if (value == '\t')
		snprintf(escape, sizeof escape, "\\t");
	else if (code_point && value > 0x7F)
		snprintf(escape, sizeof escape, value > 0xFFFF ? "\\U%08x" : "\\u%04x", value);
	else
		snprintf(escape, sizeof escape, "\\x%02x", value);
	out += escape;
}

// Bytes of the longest beginning of printable text that takes at most `width` cells.
size_t bytes_within(std::string_view text, size_t width)
{
	size_t at = 0, taken = 0;
	while (at < text.size()) {
		CodePoint point = decode_utf8(text, at);
		taken += cells_of(point.value);
		if (taken > width) break;
		at += std::max(point.length, size_t{1});
	}
	return at;
}

// Bytes of the end of printable text, as much of it as takes at most `width` of its `whole` cells.
size_t end_within(std::string_view text, size_t width, size_t whole)
{
	size_t at = 0, left = whole;
	while (at < text.size() && left > width) {
		CodePoint point = decode_utf8(text, at);
		left -= std::min(left, cells_of(point.value));
		at += std::max(point.length, size_t{1});
	}
	return text.size() - at;
}

} // namespace

std::string text_of_bytes(std::string_view bytes)
{
	size_t at = 0;
	while (at < bytes.size()) {
		CodePoint point = decode_utf8(bytes, at);
		if (!point.length) break;
		at += point.length;
	}
	if (at == bytes.size()) return std::string(bytes);
	std::string out;
	for (unsigned char byte : bytes) {
		if (byte >= 0x80) out += static_cast<char>(0xC0 | byte >> 6);
		out += static_cast<char>(byte >= 0x80 ? 0x80 | (byte & 0x3F) : byte);
	}
	return out;
}

std::string valid_utf8(std::string_view text)
{
	std::string out;
	out.reserve(text.size());
	for (size_t at = 0; at < text.size();) {
		CodePoint point = decode_utf8(text, at);
		out += point.length ? text.substr(at, point.length) : std::string_view("\uFFFD");
		at += point.length ? point.length : 1;
	}
	return out;
}

std::string printable(std::string_view text)
{
	std::string out;
	out.reserve(text.size());
	for (size_t at = 0; at < text.size();) {
		CodePoint point = decode_utf8(text, at);
		if (!point.length)
			append_escape(out, static_cast<unsigned char>(text[at]), false);
		else if (is_harmful(point.value))
			append_escape(out, point.value, true);
		else
			out += text.substr(at, point.length);
		at += point.length ? point.length : 1;
	}
	return out;
}

size_t text_width(std::string_view text)
{
	size_t cells = 0;
	for (size_t at = 0; at < text.size();) {
		CodePoint point = decode_utf8(text, at);
		cells += cells_of(point.value);
		at += std::max(point.length, size_t{1});
	}
	return cells;
}

std::string cut(std::string_view text, size_t width)
{
	if (bytes_within(text, width) == text.size()) return std::string(text);
	if (width == 0) return {};
	return std::string(text.substr(0, bytes_within(text, width - 1))).append(ellipsis);
}

std::string cut_middle(std::string_view text, size_t width)
{
	size_t whole = text_width(text);
	if (whole <= width) return std::string(text);
	if (width == 0) return {};
	size_t tail = (width - 1) / 2, head = width - 1 - tail;
	return std::string(text.substr(0, bytes_within(text, head)))
		.append(ellipsis)
		.append(text.substr(text.size() - end_within(text, tail, whole)));
}

std::vector<std::string> wrap(std::string_view text, size_t width, size_t most)
{
	std::vector<std::string> lines;
	text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
	// Each step looks at one line's worth: texts may be megabytes long.
	for (size_t end; (end = bytes_within(text, width)) < text.size();) {
		if (lines.size() + 1 == most) break;
		if (end == 0) end = decode_utf8(text, 0).length; // wider than a line
		size_t blank = text.substr(0, end + 1).rfind(' ');
		// A space in the first half would leave the line ragged; a long word is broken instead.
		bool at_blank = blank != std::string_view::npos && blank > end / 2;
		lines.emplace_back(text.substr(0, at_blank ? blank : end));
		text.remove_prefix(at_blank ? blank + 1 : end);
	}
	lines.push_back(cut(text, width));
	return lines;
}

static struct winsize terminal_size()
{
	struct winsize size = {};
	if (!isatty(STDOUT_FILENO) || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) size = {};
	return size;
}

size_t terminal_width()
{
	return terminal_size().ws_col;
}

size_t terminal_height()
{
	return terminal_size().ws_row;
}

static std::vector<size_t> column_widths(
	const std::vector<Column> &columns, const std::vector<std::vector<std::string>> &rows, size_t width)
{
	std::vector<size_t> widths;
	size_t taken = columns.empty() ? 0 : 2 * (columns.size() - 1), shrinking = 0;
	for (size_t i = 0; i < columns.size(); i++) {
		size_t widest = text_width(columns[i].title);
		for (const auto &row : rows) widest = std::max(widest, text_width(row[i]));
		widths.push_back(widest);
		if (columns[i].shrinks)
			shrinking++;
		else
			taken += widest;
	}
	// The narrowest first: what one does not need is left to wider ones.
	std::vector<size_t> order(columns.size());
	for (size_t i = 0; i < order.size(); i++) order[i] = i;
	std::stable_sort(order.begin(), order.end(), [&widths](size_t a, size_t b) { return widths[a] < widths[b]; });
	size_t left = width - std::min(width, taken);
	for (size_t i : order) {
		if (!columns[i].shrinks) continue;
		widths[i] = std::min(widths[i], std::max(left / shrinking--, size_t{4}));
		left -= std::min(left, widths[i]);
	}
	return widths;
}

std::vector<std::string> table_lines(
	const std::vector<Column> &columns, const std::vector<std::vector<std::string>> &rows, size_t width)
{
	auto widths = column_widths(columns, rows, width);
	std::vector<std::string> lines;
	auto line = [&](auto cell_of) {
		std::string text;
		size_t pending = 0; // spaces owed before the next cell, so that no line ends in spaces
		for (size_t i = 0; i < columns.size(); i++) {
			std::string cell = cut_middle(cell_of(i), widths[i]);
			size_t fill = widths[i] - text_width(cell);
			size_t before = pending + (columns[i].right ? fill : 0);
			if (!cell.empty()) text.append(before, ' ').append(cell);
			pending = cell.empty() ? pending + widths[i] + 2 : (columns[i].right ? 2 : fill + 2);
		}
		lines.push_back(std::move(text));
	};
	line([&](size_t i) { return columns[i].title; });
	for (const auto &row : rows) line([&](size_t i) { return row[i]; });
	return lines;
}

std::string table(const std::vector<Column> &columns, const std::vector<std::vector<std::string>> &rows, size_t width)
{
	std::string out;
	for (const std::string &line : table_lines(columns, rows, width)) out += line + "\n";
	return out;
}

std::string percent(int64_t part, int64_t whole)
{
	if (whole <= 0) return "-";
	// Packets may say anything: neither an overflow nor a column too wide.
	double share = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
	return std::to_string(static_cast<int>(std::clamp(share + 0.5, 0.0, 999.0))) + "%";
}

std::string duration_text(int64_t ms)
{
	if (ms < 10000) return std::to_string(ms) + " ms";
	if (ms >= 1000000) return std::to_string((ms + 500) / 1000) + " s";
	int64_t tenths = (ms + 50) / 100;
	return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

std::string fine_duration_text(int64_t us)
{
	const int64_t tenths = (us + 50) / 100;
	if (tenths >= 100) return duration_text((us + 500) / 1000);
	return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " ms";
}

std::string sparkline(const std::vector<int64_t> &values)
{
	constexpr const char *bars[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
	int64_t largest = 1;
	for (int64_t value : values) largest = std::max(largest, value);
	std::string line;
	for (int64_t value : values) {
		// What is there at all is seen.
		const double share = static_cast<double>(std::max(value, int64_t{0})) / static_cast<double>(largest);
		line += bars[value > 0 ? std::clamp(static_cast<int>(share * 7 + 0.5), 1, 7) : 0];
	}
	return line;
}

bool terminal_has_bars()
{
	if (!terminal_width()) return false;
	for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
		const char *value = getenv(name);
		if (value && *value) return strcasestr(value, "utf-8") || strcasestr(value, "utf8");
	}
	return false;
}

} // namespace quorbit
