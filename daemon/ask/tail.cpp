// quorbit tail: actions as they come.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "store/open_reader.h"

#include <nlohmann/json.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

// The last ten actions of the application ("": of all), then each as it comes; returns when its reader is gone.
int tail(const DaemonConfig &config, const std::string &application, bool json)
{
	auto store = open_reader(config);
	require_application(*store, application);
	const size_t width = list_width();
	if (!json) put(tail_header(width));
	StorePosition before = store->position();
	ActionFilter filter;
	filter.application = application;
	auto rows = store->actions({filter, ActionOrder::newest, 10});
	std::reverse(rows.begin(), rows.end());
	for (;;) {
		for (const ActionRow &row : rows) {
			put(json ? json_text(action_summary(row), false) : tail_line(row, width, wall_clock_ms()));
		}
		// Fails when the reader has gone.
		if (fflush(stdout) != 0) return 1;
		if (!rows.empty()) before.last_id = std::max(before.last_id, rows.back().id);
		std::this_thread::sleep_for(300ms);
		// Taken first: what other applications send meanwhile need not be looked at again.
		const StorePosition now = store->position();
		if (now.identity != before.identity) before = {now.identity, 0};
		filter.after_id = before.last_id;
		rows = store->actions({filter, ActionOrder::oldest, 1000});
		if (store->position().identity != now.identity)
			rows.clear(); // of the next store, from an id in the middle
		else if (rows.empty())
			before.last_id = now.last_id;
	}
}

} // namespace

CommandRun add_tail(CLI::App &command)
{
	struct TailOptions {
		std::string application;
		bool json = false;
	};
	auto options = std::make_shared<TailOptions>();
	command.add_option("--app", options->application, "only this application")->type_name("APP");
	command.add_flag("--json", options->json, "for programs");
	set_examples(command,
		{{"quorbit tail --app Shop", "the actions of one application as they come"},
			{"quorbit tail --json | jq 'select(.duration_ms > 500)'", "the slow ones"}});
	return [options](const DaemonConfig &config) { return tail(config, options->application, options->json); };
}

} // namespace quorbit
