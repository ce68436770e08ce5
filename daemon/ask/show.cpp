// quorbit show: the newest actions, or one in full.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "store/open_reader.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace quorbit {

namespace {

struct ShowOptions {
	std::string id; // one action in full, or a key of the sums; "" for a list
	ActionQuestion question;
	RangeOptions range;
	std::string slower_than, sort = "newest";
	bool json = false;
	std::string format; // of one action: "json", "chrome", or "" for people
	bool full = false;  // of one action: nothing summed up or cut
};

// The settings given to an application, as far as they are known.
Settings given_to(Reader &store, const std::string &application)
{
	for (const ApplicationRow &row : store.applications()) {
		if (row.name == application) return parse_given(row.given);
	}
	return {};
}

int show_action(Reader &store, const ShowOptions &options)
{
	auto whole = whole_action(store, std::stoll(options.id));
	if (!whole) throw std::runtime_error("there is no action " + options.id + " (it may have been dropped)");
	const auto &[shown, related] = *whole;
	if (options.format == "chrome")
		put(trace_events_json(shown));
	else if (options.json)
		put(json_text(action_json(shown, related), true));
	else
		put(action_text(shown, related, output_width(), options.full, given_to(store, shown.row.application)));
	return 0;
}

// One element after the other: lists may be long.
void list_for_programs(Reader &store, const ActionQuestion &question)
{
	const char *before = "[\n  ";
	store.each_action(question, [&](const ActionRow &row) {
		std::string text = json_text(action_summary(row), true);
		text.pop_back();
		for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1))
			text.insert(at + 1, "  ");
		put(before + text);
		before = ",\n  ";
	});
	put(*before == '[' ? "[]\n" : "\n]\n");
}

// One table, or one per thousand rows: a column is as wide as its widest cell.
void list_for_people(Reader &store, const ActionQuestion &question)
{
	constexpr size_t most_together = 1000;
	std::vector<ActionRow> rows;
	bool any = false;
	auto print = [&] {
		if (!rows.empty() || !any) put(action_table(rows, list_width(), wall_clock_ms()));
		any = true;
		rows.clear();
	};
	store.each_action(question, [&](const ActionRow &row) {
		rows.push_back(row);
		if (rows.size() == most_together) print();
	});
	print();
}

ActionQuestion question_of(const ShowOptions &options, int64_t now_ms)
{
	ActionQuestion question = options.question;
	question.filter.range = options.range.range(now_ms);
	if (options.range.until == "now") question.filter.range.until_ms = INT64_MAX;
	if (!options.slower_than.empty()) question.filter.least_us = *parse_duration_us(options.slower_than);
	if (options.sort == "duration") question.order = ActionOrder::slowest;
	return question;
}

int show(const DaemonConfig &config, const ShowOptions &options)
{
	auto store = open_reader(config);
	const ActionFilter &filter = options.question.filter;
	require_host(*store, filter.host);
	if (is_key_id(options.id)) {
		RangeOptions range = options.range;
		if (range.since.empty()) range.since = "24h";
		return show_key(*store, options.id, range.range(wall_clock_ms()), filter.host, options.json);
	}
	if (!options.id.empty()) return show_action(*store, options);
	require_application(*store, filter.application);
	const ActionQuestion question = question_of(options, wall_clock_ms());
	if (options.json)
		list_for_programs(*store, question);
	else
		list_for_people(*store, question);
	return 0;
}

} // namespace

// "" for the number of an action or the id of a key, else what is wrong.
static std::string check_id(const std::string &text)
{
	bool number = !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
	if (number || is_key_id(text)) return {};
	return "expected the number of an action, as `quorbit show` lists them, or an id such as query:17";
}

CommandRun add_show(CLI::App &command)
{
	auto options = std::make_shared<ShowOptions>();
	CLI::Option *id = command.add_option(
		"ID", options->id, "the number of an action, or what top and its like list: query:17, error:3, action:5");
	id->check(check_id);
	command.add_option("-n", options->question.most, "how many actions")
		->check(CLI::Range(1, 1000000))
		->capture_default_str();
	ActionFilter &filter = options->question.filter;
	command.add_flag("--full", options->full, "of one action: every call and statement separately, nothing cut");
	command.add_option("--app", filter.application, "only this application")->type_name("APP");
	add_host(command, filter.host);
	command.add_flag("--errors", filter.errors, "only those with an error");
	command.add_option("--slower-than", options->slower_than, "only those that took at least that: 500ms, 1.5s")
		->check(check_duration);
	command.add_option("--name", filter.name_glob,
		"only names that fit: * stands for any text, ? for one character, [...] for one of those");
	command.add_option("--path", filter.path_glob, "only requests whose path fits");
	add_range(command, options->range, "");
	command.add_option("--sort", options->sort, "what comes first")
		->check(CLI::IsMember({"newest", "duration"}))
		->capture_default_str();
	command.add_flag("--json", options->json, "for programs");
	command
		.add_option(
			"--format", options->format, "of one action: json, or chrome (Trace Event, for Perfetto and speedscope)")
		->check(CLI::IsMember({"json", "chrome"}))
		->needs(id);
	set_examples(command,
		{{"quorbit show -n 50 --app Shop", "the newest actions"}, {"quorbit show 5", "one in full"},
			{"quorbit show 5 --json | jq .statements", "for programs"}});
	return [options](const DaemonConfig &config) {
		options->json = options->json || options->format == "json";
		return show(config, *options);
	};
}

} // namespace quorbit
