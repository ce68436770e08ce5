// quorbit mark: notes a release.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "store/open_reader.h"
#include "store/releases.h"

#include <stdexcept>

namespace quorbit {

namespace {

struct MarkOptions {
	std::string name, application, at = "now";
};

int mark(const DaemonConfig &config, const MarkOptions &options)
{
	if (auto refusal = access_refusal(config)) throw std::runtime_error(*refusal);
	if (!has_store(config)) throw std::runtime_error("there is no store at " + config.store_file() + " yet");
	const int64_t at_ms = *parse_moment(options.at, wall_clock_ms());
	mark_release(config.store_file(), {at_ms, options.name, options.application});
	tell("Marked " + options.name + " at " + local_time(at_ms) +
		(options.application.empty() ? " for all applications" : " for " + options.application));
	return 0;
}

} // namespace

CommandRun add_mark(CLI::App &command)
{
	auto options = std::make_shared<MarkOptions>();
	command.add_option("RELEASE", options->name, "its name, such as 1.4.2")
		->required()
		->check([](const std::string &text) {
			return text.empty() || text.size() > most_release_name ? "expected a name of 1 to 100 bytes" : "";
		});
	command.add_option("--app", options->application, "only of this application")->type_name("APP");
	command.add_option("--at", options->at, "when it was rolled out")->check(check_moment)->capture_default_str();
	set_examples(command, {{"quorbit mark 1.4.2 --app Shop", "a release of one application, rolled out now"}});
	return [options](const DaemonConfig &config) { return mark(config, *options); };
}

} // namespace quorbit
