// Printing traces.
#include "facts/trace.h"

#include "facts/plan.h"
#include "print/trace_shapes.h"
#include "base/text.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace quorbit {

namespace {

constexpr size_t text_lines = 6; // of a URL, a place or a name
constexpr size_t statement_lines = 2;
constexpr size_t most_indent = 20; // levels that are shown by indentation
constexpr size_t most_lines = 200;

std::string milliseconds_column(int64_t ms)
{
	std::string text = std::to_string(ms);
	return std::string(text.size() < 8 ? 8 - text.size() : 0, ' ') + text;
}

int64_t taken_ms(const TraceNode &node)
{
	return node.end_ms - node.start_ms;
}

// Nodes of one shape that one line stands for: siblings, or children of those that their parents' line stands for.
using Run = std::vector<size_t>;

// The children of a run as runs, in their order. Nodes of one shape have equally many runs of children.
std::vector<Run> runs_below(const Run &run, const TraceShapes &shapes)
{
	std::vector<Run> below;
	for (size_t parent : run) {
		const auto &children = shapes.children(parent);
		for (size_t i = 0, place = 0; i < children.size(); i++) {
			if (i > 0 && shapes.shape(children[i]) != shapes.shape(children[i - 1])) place++;
			if (place == below.size()) below.emplace_back();
			below[place].push_back(children[i]);
		}
	}
	return below;
}

int64_t total_ms(const Run &run, const std::vector<TraceNode> &nodes)
{
	int64_t total = 0;
	for (size_t at : run) total += taken_ms(nodes[at]);
	return total;
}

struct WeighedRun {
	Run run;
	int64_t weight_ms; // its time, and never more than that of the run that it is below
};

// All runs, parents before their children.
std::vector<WeighedRun> all_runs(const std::vector<TraceNode> &nodes, const TraceShapes &shapes)
{
	std::vector<WeighedRun> found, open; // a list of our own instead of recursion: traces nest deep
	if (!nodes.empty()) open.push_back({{0}, total_ms({0}, nodes)});
	while (!open.empty()) {
		found.push_back(std::move(open.back()));
		open.pop_back();
		auto below = runs_below(found.back().run, shapes);
		for (auto child = below.rbegin(); child != below.rend(); ++child) {
			int64_t weight_ms = std::min(found.back().weight_ms, total_ms(*child, nodes));
			open.push_back({std::move(*child), weight_ms});
		}
	}
	return found;
}

class TreePrinter {
public:
	TreePrinter(const std::vector<TraceNode> &nodes, size_t width) : nodes_(nodes), width_(width) {}

	std::string out;
	size_t lines = 0;

	void node(const TraceNode &node)
	{
		line(node, taken_ms(node), file_and_line(node.place), "");
		if (node.sql) detail("SQL", wrapped(*node.sql, SIZE_MAX));
		if (!node.url.empty()) detail("URL", wrapped(node.url, SIZE_MAX));
		std::vector<std::string> frames;
		for (const std::string &frame : node.stack) {
			for (std::string &piece : wrapped(frame, SIZE_MAX)) frames.push_back(std::move(piece));
		}
		detail("stack", frames);
		if (node.plan) detail("plan", plan_lines(*node.plan, SIZE_MAX, SIZE_MAX));
		callee(node);
	}

	void run(const Run &run)
	{
		const TraceNode &first = nodes_[run[0]];
		int64_t slowest_ms = 0;
		bool one_place = true;
		for (size_t at : run) {
			slowest_ms = std::max(slowest_ms, taken_ms(nodes_[at]));
			one_place = one_place && nodes_[at].place == first.place;
		}
		bool several = run.size() > 1;
		std::string times =
			several ? "  x " + std::to_string(run.size()) + ", slowest " + duration_text(slowest_ms) : std::string();
		line(first, total_ms(run, nodes_), one_place ? file_and_line(first.place) : std::string_view(), times);
		if (first.sql) detail("SQL", wrapped(several ? kind_of_statement(first) : *first.sql, statement_lines));
		if (!first.url.empty() && !several) detail("URL", wrapped(first.url, text_lines));
		if (!several) callee(first);
	}

private:
	void line(const TraceNode &node, int64_t total_ms, std::string_view place, const std::string &times)
	{
		indent_ = 2 * std::min(node.level, most_indent);
		std::string head =
			milliseconds_column(node.start_ms) + milliseconds_column(total_ms) + "  " + std::string(indent_, ' ');
		// Levels that indentation cannot show are shown by their number.
		if (node.level > most_indent) head += "(" + std::to_string(node.level) + ") ";
		std::string call = node.cls.empty() ? node.func : node.cls + "::" + node.func;
		size_t columns = width_ - std::min(width_, head.size() + times.size());
		std::string label = cut_middle(printable(node.name.empty() ? call : node.name + "  (" + call + ")"), columns);
		std::string at = place.empty() ? "" : "  at " + printable(place);
		bool fits = text_width(label) + text_width(at) <= columns;
		out += head + label + times + (fits ? at : "") + "\n";
		lines++;
		if (!fits) detail("at", wrapped(place, text_lines));
	}

	void callee(const TraceNode &node)
	{
		if (node.callee)
			detail("callee", wrapped(node.callee->action + ", " + duration_text(node.callee->duration_ms), text_lines));
	}

	size_t detail_columns() const { return width_ - (18 + indent_ + 2 + 8); }

	std::vector<std::string> wrapped(std::string_view text, size_t most) const
	{
		return wrap(printable(text), detail_columns(), most);
	}

	void detail(std::string title, const std::vector<std::string> &texts)
	{
		std::string before(18 + indent_ + 2, ' ');
		title.resize(8, ' ');
		for (const std::string &text : texts) {
			out.append(before).append(title).append(text).append("\n");
			lines++;
			title.assign(title.size(), ' ');
		}
	}

	const std::vector<TraceNode> &nodes_;
	size_t width_;
	size_t indent_ = 0;
};

} // namespace

std::string trace_text(const std::vector<TraceNode> &nodes, size_t width, bool full)
{
	std::string out = "   start   taken\n";
	TreePrinter printer(nodes, width);
	if (full) {
		for (const TraceNode &node : nodes) printer.node(node);
		return out + printer.out;
	}
	std::vector<WeighedRun> runs = all_runs(nodes, TraceShapes(nodes));
	std::vector<size_t> longest(runs.size()); // a parent still comes before its children
	std::iota(longest.begin(), longest.end(), size_t{0});
	std::stable_sort(
		longest.begin(), longest.end(), [&](size_t a, size_t b) { return runs[a].weight_ms > runs[b].weight_ms; });
	std::vector<std::string> texts(runs.size());
	size_t shown = 0;
	for (; shown < longest.size() && printer.lines < most_lines; shown++) {
		printer.run(runs[longest[shown]].run);
		texts[longest[shown]] = std::exchange(printer.out, {});
	}
	for (const std::string &text : texts) out += text;
	if (shown < longest.size())
		out += "  ... the rest, each " + duration_text(runs[longest[shown]].weight_ms) + " at most: --full\n";
	return out;
}

} // namespace quorbit
