// quorbit profile: orders a thread profile, waits for it and prints it.
#include "ask/command.h"

#include "base/clock.h"
#include "base/text.h"
#include "print/output.h"
#include "print/profile_formats.h"
#include "print/report.h"
#include "receive/daemonize.h"
#include "store/profile_sessions.h"
#include "store/open_reader.h"
#include "store/profile_orders.h"

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

volatile sig_atomic_t interrupted = 0;

// The first interrupt ends the profile, a second one the program.
void end_on_interrupt()
{
	struct sigaction action = {};
	action.sa_handler = [](int) { interrupted = 1; };
	action.sa_flags = SA_RESETHAND;
	for (int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

bool is_over(ProfileOrders &orders, int64_t order)
{
	return interrupted || orders.ended(order);
}

// Waits for a process to take the order; nothing when none did in time, or the order was ended.
std::optional<std::pair<int64_t, int64_t>> wait_for_start(ProfileOrders &orders, int64_t order)
{
	constexpr int64_t wait_ms = profile_wait_ms - 5000;
	using Clock = std::chrono::steady_clock;
	const auto begin = Clock::now();
	auto told = begin;
	for (;; progress("  waiting for " + std::to_string((Clock::now() - begin) / 1s) + " s")) {
		auto start = orders.start_of(order);
		if (start || is_over(orders, order)) return start;
		const auto now = Clock::now();
		if (now - begin > std::chrono::milliseconds(wait_ms)) return std::nullopt;
		if (now - told >= 10s) {
			tell("  still waiting, " + std::to_string((now - begin) / 1s) + " s of at most " +
				std::to_string(wait_ms / 1000));
			told = now;
		}
		std::this_thread::sleep_for(200ms);
	}
}

struct ProfileOptions {
	std::string application, duration, format = "table";
	size_t most = 30;
	bool stop = false;
};

using OnEvent = std::function<void(const ProfileEvent &)>;

// Prints events as they come from the store; returns how many there were.
int64_t print_raw(const std::function<void(const OnEvent &)> &each)
{
	ProfilePrinter printer;
	each([&](const ProfileEvent &event) { put(printer.add(event)); });
	return printer.events();
}

int64_t print_speedscope(const std::function<void(const OnEvent &)> &each, const ProfileOptions &options)
{
	ProfileWalk walk;
	SpeedscopeWriter writer(options.application);
	auto write = [&](const std::vector<ProfileStep> &steps) {
		for (const ProfileStep &step : steps) put(writer.add(step));
	};
	each([&](const ProfileEvent &event) { write(walk.add(event)); });
	write(walk.finish());
	put(writer.finish(walk.names()));
	return walk.events();
}

int64_t print_sums(const std::function<void(const OnEvent &)> &each, const ProfileOptions &options)
{
	ProfileWalk walk;
	CallTree tree;
	auto add = [&](const std::vector<ProfileStep> &steps) {
		for (const ProfileStep &step : steps) tree.add(step);
	};
	each([&](const ProfileEvent &event) { add(walk.add(event)); });
	add(walk.finish());
	if (walk.events() == 0) return 0;
	if (options.format == "folded")
		put_folded(tree, walk.names(), put);
	else if (options.format == "callgrind")
		put(callgrind_text(tree, walk.names(), options.application));
	else
		put(profile_text(walk, tree, options.most, list_width()));
	return walk.events();
}

// The profile as far as it came; it may have been ended early.
void print_profile(Reader &store, const ProfileOptions &options, int64_t after_event)
{
	auto each = [&](const OnEvent &on_event) {
		store.each_profile_event({options.application, after_event}, on_event);
	};
	int64_t events = 0;
	if (options.format == "raw")
		events = print_raw(each);
	else if (options.format == "speedscope")
		events = print_speedscope(each, options);
	else
		events = print_sums(each, options);
	if (events == 0) tell("No events came: these processes began no further request in that time.");
}

int profile(const DaemonConfig &config, const ProfileOptions &options)
{
	const std::string &application = options.application;
	const int64_t seconds = *parse_seconds(options.duration);
	auto refusal = access_refusal(config);
	if (refusal) throw std::runtime_error(*refusal);
	if (!daemon_answers(config)) throw std::runtime_error("no daemon is running; see `quorbit status`");
	auto store = open_reader(config);
	require_application(*store, application);
	ProfileOrders orders(config.store_file());
	end_on_interrupt();
	const int64_t last_event = orders.last_event();
	int64_t order = orders.order(application, seconds);
	tell("Waiting for a process of \"" + application + "\" to ask for its configuration.");
	tell("A process asks at the start of a request, at most once a minute: this may take 65 s, and needs requests.");
	auto start = wait_for_start(orders, order);
	bool over = is_over(orders, order);
	if (!start) {
		orders.cancel(order);
		throw std::runtime_error(over ? "the profile was ended before a process began it"
									  : "no process of this application asked; `quorbit status` lists applications and "
										"their last query");
	}
	tell("Process " + std::to_string(start->first) + " profiles for " + std::to_string(seconds) +
		" s; others join as they ask.");
	// One second for the rounding of the clock, one for the last events to be stored.
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 2);
	while (std::chrono::steady_clock::now() < end && !(over = is_over(orders, order))) {
		const auto left = std::chrono::ceil<std::chrono::seconds>(end - std::chrono::steady_clock::now());
		progress("  " + std::to_string(left.count()) + " s left");
		std::this_thread::sleep_for(200ms);
	}
	progress("");
	if (over) {
		orders.cancel(order);
		tell("The profile was ended early; this is what came until then.");
	}
	print_profile(*store, options, last_event);
	return 0;
}

int stop(const DaemonConfig &config, const std::string &application)
{
	require_application(*open_reader(config), application);
	int64_t ended = ProfileOrders(config.store_file()).stop(application);
	if (ended == 0) throw std::runtime_error("no profile of \"" + application + "\" waits or runs");
	put("Ended " + std::to_string(ended) + (ended == 1 ? " profile of " : " profiles of ") + printable(application) +
		"; processes that ask again stop at once, others at the time that they were given.\n");
	return 0;
}

} // namespace

CommandRun add_profile(CLI::App &command)
{
	auto options = std::make_shared<ProfileOptions>();
	command.add_option("APP", options->application, "name of the application")->type_name("APP")->required();
	command.add_option("TIME", options->duration, "how long, such as 30s")->check(check_seconds);
	command.add_flag("--stop", options->stop, "end every profile of the application, whoever ordered it");
	command
		.add_option("--format", options->format,
			"table; folded, callgrind or speedscope for tools that show profiles; raw: every event")
		->check(CLI::IsMember({"table", "folded", "callgrind", "speedscope", "raw"}))
		->capture_default_str();
	command.add_option("-n", options->most, "how many functions")->check(CLI::Range(1, 1000000))->capture_default_str();
	command.parse_complete_callback([options] {
		if (!options->stop && options->duration.empty()) throw CLI::RequiredError("TIME");
	});
	set_examples(command,
		{{"quorbit profile Shop 30s", "functions and paths that took the time"},
			{"quorbit profile Shop 30s --format folded | flamegraph.pl >shop.svg", "a flame graph"},
			{"quorbit profile Shop 30s --format callgrind >callgrind.out.shop", "for KCachegrind"},
			{"quorbit profile --stop Shop", "ends it"}});
	return [options](const DaemonConfig &config) {
		if (options->stop) return stop(config, options->application);
		return profile(config, *options);
	};
}

} // namespace quorbit
