// What is printed of sums: lists of keys, one key, two ranges compared.
#pragma once

#include "base/json_text.h"
#include "facts/places.h"
#include "store/comparison.h"
#include "store/reader.h"

#include <map>

namespace quorbit {

// A list of sums, and what belongs to it.
struct SumList {
	SumQuestion question;
	SumAnswer answer;
	std::map<int64_t, std::vector<SumRow>> actions; // by the number of a query: the actions that run it, the first few
	std::vector<MachineRow> machine;                // of hosts: one row, of the whole range
	std::vector<ReleaseRow> releases;               // of errors: those that they may be new since, oldest first
};

// The last release of the key's application, when the key was seen first since then; else nothing.
const ReleaseRow *new_since(const SumList &list, const KeyFacts &key);

// Asks for the sums; for errors also for the releases, for hosts for what the machine did. Not for `actions`.
SumList sum_list(Reader &store, const SumQuestion &question);

// Text in `width` columns, with a trend in bars when the terminal has them.
std::string sums_text(const SumList &list, size_t width, bool bars, int64_t now_wall_ms);
Json sums_json(const SumList &list);
// The figures that every sum has in JSON.
Json figures_json(const Sums &sums);
// A line of titles, then one per row (https://www.rfc-editor.org/rfc/rfc4180), texts harmless for a terminal.
std::string sums_csv(const SumList &list);

// One key: its figures, its trend, what belongs to it.
struct KeyReport {
	SumKey key;
	SumRow row;
	TimeRange range;
	std::vector<SeriesPoint> series;
	std::vector<std::pair<SumKey, SumAnswer>> related; // actions of a query; queries, calls, errors of an action
};
// Asks for all of it; nothing when the key is not known any more.
std::optional<KeyReport> key_report(
	Reader &store, SumKey key, int64_t id, const TimeRange &range, const std::string &host = "");
// The length of one of that many parts of a range: whole minutes, or whole hours where it is long.
int64_t step_of(const TimeRange &range, int64_t points);
std::string key_text(const KeyReport &report, size_t width, int64_t now_wall_ms);
Json key_json(const KeyReport &report);

// Sums part by part of a range, and the releases in it.
struct SeriesReport {
	TimeRange range;
	int64_t step_ms = 0;
	std::vector<SeriesPoint> points;
	std::vector<ReleaseRow> releases;
	bool durations = false;          // of each part, how many took how long
	std::vector<MachineRow> machine; // what hosts did in each part, where that is asked for
};
Json series_json(const SeriesReport &report);
Json releases_json(const std::vector<ReleaseRow> &releases);

std::string comparison_text(const Comparison &comparison, size_t width);
Json comparison_json(const Comparison &comparison);

} // namespace quorbit
