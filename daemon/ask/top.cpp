// quorbit top: sums per action name.
#include "ask/command.h"

#include "base/clock.h"
#include "base/text.h"
#include "print/output.h"
#include "print/report.h"
#include "store/open_reader.h"

#include <algorithm>

namespace quorbit {

namespace {

struct TopOptions {
	SumQuestion question;
	std::string since = "1h";
	size_t most = 0; // 0: what fits the terminal
};

// Rows between the titles and what the shell prints next, with a line for those that are left out.
size_t rows_that_fit()
{
	const size_t rows = terminal_height();
	return rows ? std::max(rows, size_t{8}) - 3 : 50;
}

} // namespace

CommandRun add_top(CLI::App &command)
{
	auto options = std::make_shared<TopOptions>();
	command.add_option("--since", options->since, "how far back")->check(check_seconds)->capture_default_str();
	command.add_option("-n", options->most, "how many names; default: what fits the terminal, else 50")
		->check(CLI::Range(1, 1000000));
	command.add_option("--app", options->question.filter.application, "only this application")->type_name("APP");
	set_examples(command,
		{{"quorbit top --since 15m", "what took the time of the last quarter of an hour"},
			{"quorbit top --since 7d -n 200 --app Shop", "a week of one application"}});
	return [options](const DaemonConfig &config) {
		options->question.filter.range.from_ms = wall_clock_ms() - *parse_seconds(options->since) * 1000;
		auto store = open_reader(config);
		const SumFilter &filter = options->question.filter;
		require_application(*store, filter.application);
		options->question.most = static_cast<int64_t>(options->most ? options->most : rows_that_fit());
		const SumAnswer answer = store->sums(options->question);
		put(top_text(answer.rows, list_width()));
		if (answer.left_out) put("... and " + std::to_string(answer.left_out) + " more (-n)\n");
		put(dropped_text(store->dropped(filter.range, filter.application)));
		return 0;
	};
}

} // namespace quorbit
