// A thread profile: its sums, and its events.
#include "print/report.h"

#include "base/text.h"

#include <algorithm>
#include <cstdio>

namespace quorbit {

namespace {

std::string count_of(int64_t count, const std::string &what)
{
	return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// The places with most time of their own; those without any are left out unless there is nothing else.
template <typename Sums>
std::vector<size_t> by_own_time(const Sums &sums, size_t first)
{
	std::vector<size_t> places;
	for (size_t i = first; i < sums.size(); i++) places.push_back(i);
	std::stable_sort(places.begin(), places.end(), [&](size_t a, size_t b) {
		return std::pair(sums[a].own_ms, sums[a].total_ms) > std::pair(sums[b].own_ms, sums[b].total_ms);
	});
	return places;
}

std::string function_table(const std::vector<CallSum> &sums, const std::vector<std::string> &names, int64_t whole_ms,
	size_t most, size_t width)
{
	const std::vector<Column> columns = {
		{"CALLS", true}, {"OWN", true}, {"OWN%", true}, {"TOTAL", true}, {"TOTAL%", true}, {"FUNCTION", false, true}};
	std::vector<std::vector<std::string>> rows;
	for (size_t place : by_own_time(sums, 0)) {
		if (rows.size() == most) break;
		const CallSum &sum = sums[place];
		rows.push_back({std::to_string(sum.calls), duration_text(sum.own_ms), percent(sum.own_ms, whole_ms),
			duration_text(sum.total_ms), percent(sum.total_ms, whole_ms), printable(names[place])});
	}
	const size_t left_out = sums.size() - rows.size();
	std::string out = table(columns, rows, width);
	if (left_out) out += "... and " + count_of(static_cast<int64_t>(left_out), "function") + " more (-n)\n";
	return out;
}

// "main > Shop::rows > PDO::query", in that many columns: what does not fit is dropped from the front.
std::string path_text(const CallTree &tree, size_t node, const std::vector<std::string> &names, size_t width)
{
	constexpr std::string_view arrow = " > ";
	std::string path = printable(names[tree.nodes()[node].function]);
	for (size_t at = tree.nodes()[node].parent; at != 0; at = tree.nodes()[at].parent) {
		const std::string caller = printable(names[tree.nodes()[at].function]) + std::string(arrow);
		if (text_width(path) + text_width(caller) > width) return "... > " + path;
		path.insert(0, caller);
	}
	return path;
}

std::string path_table(
	const CallTree &tree, const std::vector<std::string> &names, int64_t whole_ms, size_t most, size_t width)
{
	std::vector<CallSum> sums;
	for (const CallTree::Node &node : tree.nodes()) sums.push_back(node.sum);
	std::vector<std::vector<std::string>> rows;
	constexpr size_t other_columns = 30, longest_path = 400;
	const size_t for_path = std::min(width, longest_path) - other_columns;
	for (size_t place : by_own_time(sums, 1)) {
		if (rows.size() == most || (sums[place].own_ms == 0 && !rows.empty())) break;
		rows.push_back({std::to_string(sums[place].calls), duration_text(sums[place].own_ms),
			percent(sums[place].own_ms, whole_ms), path_text(tree, place, names, for_path)});
	}
	return table({{"CALLS", true}, {"OWN", true}, {"OWN%", true}, {"PATH", false, true}}, rows, width);
}

} // namespace

std::string profile_text(const ProfileWalk &walk, const CallTree &tree, size_t most, size_t width)
{
	int64_t calls = 0;
	for (const CallSum &sum : tree.functions()) calls += sum.calls;
	std::string out = count_of(walk.actions(), "action") + " in " + count_of(walk.threads(), "thread") + ", " +
		count_of(calls - walk.actions(), "call") + ", " + duration_text(tree.total_ms());
	out += walk.cut_off() ? "; " + count_of(walk.cut_off(), "call") + " had not ended.\n\n" : ".\n\n";
	out += function_table(tree.functions(), walk.names(), tree.total_ms(), most, width);
	constexpr size_t fewer_paths = 3;
	out += "\nWhere it was spent:\n" +
		path_table(tree, walk.names(), tree.total_ms(), std::max(most / fewer_paths, size_t{1}), width);
	return out;
}

std::string ProfilePrinter::add(const ProfileEvent &event)
{
	std::string out;
	if (events_ == 0 || event.thread != thread_) {
		out = std::string(events_ ? "\n" : "") + "Thread " + std::to_string(event.thread) +
			"  (ms from its first event)\n";
		thread_ = event.thread;
		begin_ms_ = event.at_ms;
		open_.clear();
	}
	events_++;
	std::string taken;
	if (!event.enter) {
		// A leave ends what was entered under its name, and all that exit or a fatal error kept from leaving.
		auto same = std::find_if(open_.rbegin(), open_.rend(), [&](const Entered &entered) {
			return entered.kind == event.kind && (event.kind == "action" || entered.name == event.name);
		});
		if (same != open_.rend()) {
			taken = "  " + std::to_string(event.at_ms - same->at_ms) + " ms";
			open_.erase(same.base() - 1, open_.end());
		}
	}
	char at[24];
	snprintf(at, sizeof at, "%10lld  ", static_cast<long long>(event.at_ms - begin_ms_));
	constexpr size_t most_levels = 40;
	out += at + std::string(2 * std::min(open_.size(), most_levels), ' ') + (event.enter ? "> " : "< ");
	out += (event.kind == "action" ? "action " : "") + printable(event.name) + taken + "\n";
	if (event.enter) open_.push_back({event.kind, event.name, event.at_ms});
	return out;
}

} // namespace quorbit
