// quorbit top, and its short forms queries and errors: lists of sums.
#include "ask/command.h"

#include "base/clock.h"
#include "base/text.h"
#include "print/output.h"
#include "print/report.h"
#include "print/report_sums.h"
#include "store/open_reader.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

struct TopOptions {
	SumQuestion question;
	RangeOptions range;
	std::string by, sort;
	int64_t most = 0; // 0: what fits the terminal
	bool json = false, csv = false;
};

constexpr int64_t trend_points = 24;
constexpr int64_t most_for_programs = 1000;
constexpr int64_t query_lines = 5;  // about what one takes
constexpr int64_t most_actions = 3; // told of a query

// Rows between the titles and what the shell prints next, with a line for those that are left out.
int64_t rows_that_fit(SumKey key)
{
	const auto height = static_cast<int64_t>(terminal_height());
	const int64_t rows = height ? std::max(height, int64_t{8}) - 3 : 50;
	return key == SumKey::query ? std::max(rows / query_lines, int64_t{3}) : rows;
}

void add_actions(Reader &store, SumList &list)
{
	for (const SumRow &row : list.answer.rows) {
		if (row.key.id == 0) continue;
		SumQuestion question;
		question.filter.range = list.question.filter.range;
		question.filter.within = row.key.id;
		question.filter.host = list.question.filter.host;
		question.order = SumOrder::statements;
		question.most = most_actions;
		list.actions[row.key.id] = store.sums(question).rows;
	}
}

int top(const DaemonConfig &config, const TopOptions &options)
{
	SumList list;
	list.question = options.question;
	list.question.key = *sum_key_of(options.by);
	list.question.order = *sum_order_of(options.sort);
	const int64_t now_ms = wall_clock_ms();
	SumFilter &filter = list.question.filter;
	filter.range = options.range.range(now_ms);
	const bool for_programs = options.json || options.csv;
	const bool bars = !for_programs && terminal_has_bars();
	list.question.most = options.most ? options.most
		: for_programs                ? most_for_programs
									  : rows_that_fit(list.question.key);
	list.question.trend_points = bars || options.json ? trend_points : 0;
	auto store = open_reader(config);
	require_application(*store, filter.application);
	require_host(*store, filter.host);
	{
		const Working working("reading the sums");
		list = sum_list(*store, list.question);
		if (list.question.key == SumKey::query && !options.csv) add_actions(*store, list);
	}
	if (options.json) {
		put(json_text(sums_json(list), true));
	} else if (options.csv) {
		put(sums_csv(list));
	} else {
		put(sums_text(list, list_width(), bars, now_ms));
		if (list.answer.left_out) put("... and " + std::to_string(list.answer.left_out) + " more (-n)\n");
		put(dropped_text(store->dropped(filter.range, filter.application)));
	}
	return 0;
}

// What is given by the command itself is no option of it.
CommandRun add_list(CLI::App &command, const char *by, const char *sort)
{
	auto options = std::make_shared<TopOptions>();
	options->by = by ? by : "action";
	options->sort = sort;
	if (!by) {
		command
			.add_option(
				"--by", options->by, "action, path, query, error, external, cache, component, application or host")
			->check([](const std::string &text) {
				return sum_key_of(text) ? "" : "expected one of those that --help lists";
			})
			->capture_default_str();
	}
	command.add_option("--sort", options->sort, "total, count, avg, p95, p99, errors or statements")
		->check(
			[](const std::string &text) { return sum_order_of(text) ? "" : "expected one of those that --help lists"; })
		->capture_default_str();
	add_range(command, options->range, "1h");
	command.add_option("--app", options->question.filter.application, "only this application")->type_name("APP");
	add_host(command, options->question.filter.host);
	command.add_option("--name", options->question.filter.name_glob,
		"only names that fit: * stands for any text, ? for one character, [...] for one of those");
	command.add_option("-n", options->most, "how many; default: what fits the terminal, else 50")
		->check(CLI::Range(1, 1000000));
	auto *json = command.add_flag("--json", options->json, "for programs");
	command.add_flag("--csv", options->csv, "for spreadsheets")->excludes(json);
	return [options](const DaemonConfig &config) { return top(config, *options); };
}

} // namespace

CommandRun add_top(CLI::App &command)
{
	set_examples(command,
		{{"quorbit top --by external --sort p95", "the slowest outgoing calls of the last hour"},
			{"quorbit top --since 7d -n 200 --app Shop", "a week of one application"}});
	return add_list(command, nullptr, "total");
}

CommandRun add_queries(CLI::App &command)
{
	set_examples(command, {{"quorbit queries --since 1d --name '*orders*'", "a day of the statements on orders"}});
	return add_list(command, "query", "total");
}

CommandRun add_errors(CLI::App &command)
{
	set_examples(command, {{"quorbit errors --since 7d", "what fails, and since when"}});
	return add_list(command, "error", "count");
}

} // namespace quorbit
