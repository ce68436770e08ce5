// quorbit top: sums per action name.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "store/open_reader.h"

namespace quorbit {

namespace {

struct TopOptions {
	SumQuestion question;
	std::string since = "1h";
};

} // namespace

CommandRun add_top(CLI::App &command)
{
	auto options = std::make_shared<TopOptions>();
	command.add_option("--since", options->since, "how far back")->check(check_seconds)->capture_default_str();
	command.add_option("--app", options->question.filter.application, "only this application");
	return [options](const DaemonConfig &config) {
		options->question.filter.range.from_ms = wall_clock_ms() - *parse_seconds(options->since) * 1000;
		auto store = open_reader(config);
		const ActionFilter &filter = options->question.filter;
		require_application(*store, filter.application);
		put(top_text(store->sums(options->question), list_width()));
		put(dropped_text(store->dropped(filter.range, filter.application)));
		return 0;
	};
}

} // namespace quorbit
