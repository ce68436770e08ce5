// quorbit profile: orders a thread profile, waits for it and prints it.
#include "ask/command.h"

#include "base/clock.h"
#include "base/text.h"
#include "print/output.h"
#include "print/report.h"
#include "receive/daemonize.h"
#include "store/profile_sessions.h"
#include "store/open_reader.h"
#include "store/profile_orders.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

// Waits for a process to take the order; nothing when none did in time.
std::optional<std::pair<int64_t, int64_t>> wait_for_start(ProfileOrders &orders, int64_t order)
{
	constexpr int64_t wait_ms = profile_wait_ms - 5000;
	int64_t begin_ms = wall_clock_ms(), told_ms = begin_ms;
	for (;;) {
		auto start = orders.start_of(order);
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

int profile(const DaemonConfig &config, const std::string &application, int64_t seconds)
{
	if (!daemon_answers(config)) throw std::runtime_error("no daemon is running; see `quorbit status`");
	auto store = open_reader(config);
	require_application(*store, application);
	ProfileOrders orders(config.store_file());
	int64_t order = orders.order(application, seconds);
	tell("Waiting for a process of \"" + printable(application) + "\" to ask for its configuration.");
	tell("A process asks at the start of a request, at most once a minute: this may take 65 s, and needs requests.");
	auto start = wait_for_start(orders, order);
	if (!start) {
		orders.cancel(order);
		throw std::runtime_error(
			"no process of this application asked; `quorbit status` lists applications and their last query");
	}
	auto [process, started_ms] = *start;
	tell("Process " + std::to_string(process) + " profiles for " + std::to_string(seconds) +
		" s; others join as they ask.");
	// One second for the rounding of the clock, one for the last events to be stored.
	while (wall_clock_ms() < started_ms + (seconds + 2) * 1000) std::this_thread::sleep_for(200ms);
	ProfilePrinter printer;
	store->each_profile_event({application, {started_ms}}, [&](const ProfileEvent &event) { put(printer.add(event)); });
	if (printer.events() == 0) tell("No events came: these processes began no further request in that time.");
	return 0;
}

} // namespace

CommandRun add_profile(CLI::App &command)
{
	struct ProfileOptions {
		std::string application, duration;
	};
	auto options = std::make_shared<ProfileOptions>();
	command.add_option("APP", options->application, "name of the application")->required();
	command.add_option("TIME", options->duration, "how long, such as 30s")->required()->check(check_seconds);
	return [options](const DaemonConfig &config) {
		return profile(config, options->application, *parse_seconds(options->duration));
	};
}

} // namespace quorbit
