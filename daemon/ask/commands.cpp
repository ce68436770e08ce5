// show, tail, top, status, profile: from the store to the terminal.
#include "ask/commands.h"

#include "receive/daemonize.h"
#include "print/report.h"
#include "base/text.h"
#include "base/clock.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

void put(const std::string &text)
{
	fwrite(text.data(), 1, text.size(), stdout);
}
// Progress, apart from what is asked for.
void tell(const std::string &line)
{
	fprintf(stderr, "%s\n", line.c_str());
}

// Columns to print in: the terminal's, within reason.
size_t output_width()
{
	return std::clamp(terminal_width(), size_t{100}, size_t{200});
}

bool has_store(const DaemonConfig &config)
{
	struct stat status;
	return stat(config.store_file().c_str(), &status) == 0 && status.st_size > 0;
}

StoreReader open_store(const DaemonConfig &config, bool for_orders = false)
{
	if (!has_store(config))
		throw std::runtime_error("there is no store at " + config.store_file() + " yet; see `quorbit status`");
	return StoreReader(config.store_file(), for_orders);
}

int show_action(StoreReader &store, int64_t id, const ShowOptions &options)
{
	auto shown = store.action(id);
	if (!shown) throw std::runtime_error("there is no action " + std::to_string(id) + " (any more)");
	auto others = store.related(*shown, called_tracer_ids(shown->action));
	auto related = relate(*shown, others);
	if (options.json)
		put(json_text(action_json(*shown, related), true));
	else
		put(action_text(*shown, related, output_width(), options.full));
	return 0;
}

// Waits for a process to take the order; nothing when none did in time.
std::optional<std::pair<int64_t, int64_t>> wait_for_start(StoreReader &store, int64_t order)
{
	constexpr int64_t wait_ms = profile_wait_ms - 5000;
	int64_t begin_ms = wall_clock_ms(), told_ms = begin_ms;
	for (;;) {
		auto start = store.order_start(order);
		if (start) return start;
		int64_t now_ms = wall_clock_ms();
		if (now_ms - begin_ms > wait_ms) return std::nullopt;
		if (now_ms - told_ms >= 10000) {
			tell("  still waiting, " + std::to_string((now_ms - begin_ms) / 1000) + " s of at most " +
				std::to_string(wait_ms / 1000));
			told_ms = now_ms;
		}
		std::this_thread::sleep_for(200ms);
	}
}

} // namespace

int show(const DaemonConfig &config, const ShowOptions &options)
{
	StoreReader store = open_store(config);
	if (options.id) return show_action(store, *options.id, options);
	auto rows = store.newest(options.most, options.application);
	if (!options.json) {
		put(action_table(rows, output_width(), wall_clock_ms()));
		return 0;
	}
	Json list = Json::array();
	for (const ActionRow &row : rows) list.push_back(action_summary(row));
	put(json_text(list, true));
	return 0;
}

int tail(const DaemonConfig &config, const std::string &application, bool json)
{
	StoreReader store = open_store(config);
	// No page to fit into: whoever filters the lines looks for whole names.
	const size_t width = terminal_width() ? output_width() : 130;
	if (!json) put(tail_header(width));
	int64_t last = store.last_id();
	auto rows = store.newest(10, application);
	std::reverse(rows.begin(), rows.end());
	for (;;) {
		for (const ActionRow &row : rows)
			put(json ? json_text(action_summary(row), false) : tail_line(row, width, wall_clock_ms()));
		// Fails when whoever reads us has gone.
		if (fflush(stdout) != 0) return 1;
		if (!rows.empty()) last = std::max(last, rows.back().id);
		std::this_thread::sleep_for(300ms);
		// Taken first: what other applications send meanwhile need not be looked at again.
		int64_t newest = store.last_id();
		rows = store.after(last, application);
		if (rows.empty()) last = newest;
	}
}

int top(const DaemonConfig &config, const std::string &application, int64_t since_seconds)
{
	StoreReader store = open_store(config);
	ActionSums sums;
	store.each_since(wall_clock_ms() - since_seconds * 1000, application, [&](const ActionRow &row) { sums.add(row); });
	put(top_text(sums.sorted(), output_width()));
	return 0;
}

int status(const DaemonConfig &config)
{
	const std::string folder = config.folder();
	bool closed_to_us = access(folder.c_str(), F_OK) == 0 && access(folder.c_str(), R_OK | X_OK) != 0;
	if (closed_to_us) throw std::runtime_error("only root and its group may look into " + folder);
	int process = running_daemon(config);
	bool answers = daemon_answers(config);
	if (!answers)
		put("No daemon runs.\n");
	else
		put("The daemon runs" + (process ? " as process " + std::to_string(process) : std::string()) + ".\n");
	auto applications = has_store(config) ? open_store(config).applications() : std::vector<ApplicationRow>();
	auto has_sent = [](const ApplicationRow &row) { return row.packets > 0; };
	bool received = std::any_of(applications.begin(), applications.end(), has_sent);
	put("\n" + status_text(applications, wall_clock_ms()));
	if (!received) put(nothing_received_text(config));
	return answers ? 0 : 1;
}

int profile(const DaemonConfig &config, const std::string &application, int64_t seconds)
{
	if (!daemon_answers(config)) throw std::runtime_error("no daemon runs; see `quorbit status`");
	StoreReader store = open_store(config, true);
	int64_t order = store.order_profile(application, seconds);
	tell("Waiting for a process of \"" + printable(application) + "\" to ask for its configuration.");
	tell("A process asks at the begin of a request, at most once a minute: this may take 65 s, and needs requests.");
	auto start = wait_for_start(store, order);
	if (!start) {
		store.cancel_order(order);
		throw std::runtime_error(
			"no process of this application asked; `quorbit status` lists applications and their last query");
	}
	auto [process, started_ms] = *start;
	tell("Process " + std::to_string(process) + " profiles for " + std::to_string(seconds) +
		" s; others join as they ask.");
	// One second for the rounding of the clock, one for the last events to be stored.
	while (wall_clock_ms() < started_ms + (seconds + 2) * 1000) std::this_thread::sleep_for(200ms);
	ProfilePrinter printer;
	store.each_profile_event(application, started_ms, [&](const ProfileEvent &event) { put(printer.add(event)); });
	if (printer.events() == 0) tell("No events came: no further request of these processes began in that time.");
	return 0;
}

} // namespace quorbit
