// Options, question, printing.
#include "ask/radar.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "print/report_radar.h"
#include "store/open_reader.h"

#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

struct RadarOptions {
	RadarQuestion question;
	std::string to;
	bool json = false, csv = false, sarif = false;
};

int run_radar(const DaemonConfig &config, const RadarOptions &options)
{
	auto store = open_reader(config);
	RadarQuestion question = options.question;
	require_application(*store, question.application);
	question.now_ms = wall_clock_ms();
	if (!options.to.empty()) question.to_version = *read_version(options.to);
	const RadarAnswer answer = find_on_radar(config.store_file(), question);
	if (options.json)
		put(json_text(radar_json(answer), true));
	else if (options.csv)
		put(radar_csv(answer));
	else if (options.sarif)
		put(json_text(radar_sarif(answer), true));
	else
		put(radar_text(answer, question, list_width()));
	return 0;
}

} // namespace

CommandRun add_radar(CLI::App &command)
{
	auto options = std::make_shared<RadarOptions>();
	command.add_option("--app", options->question.application, "only this application")->type_name("APP");
	command.add_option("--to", options->to, "only what must change before this version of PHP, as in 8.3")
		->check([](const std::string &text) { return read_version(text) ? "" : "expected a version such as 8.3"; });
	command
		.add_option("--unused", options->question.unused_days, "days without a call after which a function is listed")
		->check(CLI::Range(int64_t{1}, radar_days))
		->capture_default_str();
	auto *json = command.add_flag("--json", options->json, "for programs");
	auto *csv = command.add_flag("--csv", options->csv, "for spreadsheets")->excludes(json);
	command.add_flag("--sarif", options->sarif, "for code scanning (SARIF 2.1.0)")->excludes(json)->excludes(csv);
	set_examples(command,
		{{"quorbit radar --app Shop --to 7.4", "what must change before PHP 7.4 can run it"},
			{"quorbit radar --sarif >radar.sarif", "for an editor or a review tool"}});
	return [options](const DaemonConfig &config) { return run_radar(config, *options); };
}

} // namespace quorbit
