// quorbit compare: two times held against each other.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "print/report_sums.h"
#include "store/open_reader.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace quorbit {

namespace {

struct CompareOptions {
	std::string release, before, after, application, host;
	bool json = false;
};

// "A..B", two moments; nothing for anything else.
std::optional<TimeRange> read_range(const std::string &text, int64_t now_ms)
{
	const size_t dots = text.find("..");
	if (dots == std::string::npos) return std::nullopt;
	auto from = parse_moment(text.substr(0, dots), now_ms), until = parse_moment(text.substr(dots + 2), now_ms);
	if (!from || !until || *from >= *until) return std::nullopt;
	return TimeRange{*from, *until};
}

std::string check_range(const std::string &text)
{
	return read_range(text, wall_clock_ms())
		? ""
		: "expected two times such as 2h..1h or 2026-11-21T10:00..2026-11-21T12:00";
}

int run_compare(const DaemonConfig &config, const CompareOptions &options)
{
	auto store = open_reader(config);
	require_application(*store, options.application);
	require_host(*store, options.host);
	const int64_t now_ms = wall_clock_ms();
	CompareQuestion question;
	if (!options.release.empty())
		question = around_release(store->releases(options.application), options.release, now_ms);
	else if (!options.before.empty() && !options.after.empty())
		question = {*read_range(options.before, now_ms), *read_range(options.after, now_ms)};
	else
		throw std::runtime_error("name a release that was marked, or two times (--before A..B --after C..D)");
	question.application = options.application;
	question.host = options.host;
	const Comparison comparison = [&] {
		const Working working("comparing the sums");
		return compare(*store, question);
	}();
	put(options.json ? json_text(comparison_json(comparison), true) : comparison_text(comparison, list_width()));
	return 0;
}

} // namespace

CommandRun add_compare(CLI::App &command)
{
	auto options = std::make_shared<CompareOptions>();
	auto *release = command.add_option("RELEASE", options->release, "one that `quorbit mark` noted");
	command.add_option("--before", options->before, "two times, as in 2h..1h")->check(check_range)->excludes(release);
	command.add_option("--after", options->after, "two times, as in 1h..now")->check(check_range)->excludes(release);
	command.add_option("--app", options->application, "only this application")->type_name("APP");
	add_host(command, options->host);
	command.add_flag("--json", options->json, "for programs");
	set_examples(command,
		{{"quorbit compare 1.4.2", "since that release, against the same time before it"},
			{"quorbit compare --before 2h..1h --after 1h..now", "the last hour against the one before"}});
	return [options](const DaemonConfig &config) { return run_compare(config, *options); };
}

} // namespace quorbit
