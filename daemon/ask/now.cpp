// quorbit now: what every PHP process does at this moment, from the board.
#include "ask/now.h"

#include "base/clock.h"
#include "base/text.h"
#include "host/board_file.h"
#include "host/fpm_pools.h"
#include "host/listen_queue.h"
#include "host/processes.h"
#include "print/output.h"
#include "print/report.h"

#include <nlohmann/json.hpp>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>
#include <tuple>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

constexpr const char *proc = "/proc";

struct NowOptions {
	std::string application;
	int process = 0;
	bool watch = false, json = false, full = false;
};

std::unique_ptr<BoardFile> open_board(const DaemonConfig &config, bool to_ask)
{
	auto board = std::make_unique<BoardFile>(board_file(config), to_ask);
	if (!board->is_open()) {
		const std::string why = errno == ENOENT ? "there is none; the daemon makes it when it starts"
			: errno == EINVAL                   ? "it is not of this version"
												: strerror(errno);
		throw std::runtime_error("the board " + board_file(config) + " cannot be read: " + why);
	}
	return board;
}

// By master of FPM and pool.
using Waiting = std::map<std::pair<int, std::string>, int64_t>;

// The queues of the sockets that this FPM's pools listen on.
void add_waiting(const PhpProcess &master, Waiting &waiting)
{
	for (const auto &[pool, settings] : settings_of_pools(master.root, master.config)) {
		const auto listen = settings.find("listen");
		if (listen == settings.end()) continue;
		const std::string net = std::string(proc) + "/" + std::to_string(master.id) + "/net";
		if (auto queue = connections_waiting(net, listen->second)) waiting[{master.id, pool}] = *queue;
	}
}

// Of every server that is not only a manager: those with an action, and those without.
std::vector<PoolNow> pools_of(const std::map<int, std::pair<int64_t, int64_t>> &threads)
{
	std::map<std::tuple<std::string, std::string, int>, PoolNow> pools;
	Waiting waiting;
	for (const PhpProcess &process : php_processes(proc)) {
		auto slots = threads.find(process.id);
		if (!process.config.empty()) add_waiting(process, waiting);
		if (process.manages || (process.agent != AgentState::loaded && slots == threads.end())) continue;
		const bool has_manager = process.server == PhpServer::fpm || process.server == PhpServer::apache;
		const int manager = has_manager ? process.parent : 0;
		PoolNow &pool = pools[{name_of(process.server), process.pool, manager}];
		pool.server = name_of(process.server);
		pool.pool = process.pool;
		pool.manager = manager;
		pool.threads = process.server == PhpServer::apache;
		const auto [busy, idle] = slots == threads.end() ? std::pair<int64_t, int64_t>() : slots->second;
		pool.busy += pool.threads ? busy : busy > 0;
		pool.idle += pool.threads ? idle : busy == 0;
	}
	std::vector<PoolNow> found;
	for (auto &[key, pool] : pools) {
		const auto queue = waiting.find({pool.manager, pool.pool});
		if (queue != waiting.end()) pool.waiting = queue->second;
		found.push_back(std::move(pool));
	}
	return found;
}

struct Found {
	uint32_t number;
	uint64_t claim;
};

// The slots with an action of this process or thread.
std::vector<Found> slots_of(const BoardFile &board, int process)
{
	std::vector<Found> found;
	const std::vector<uint64_t> claims = board.claims();
	for (uint32_t i = 0; i < claims.size(); i++) {
		const bool ours =
			static_cast<int>(claims[i] >> 32) == process || static_cast<int>(claims[i] & UINT32_MAX) == process;
		if (claims[i] && ours && board.looks_open(i)) found.push_back({i, claims[i]});
	}
	return found;
}

// Asks for PHP's stack and waits for a second; as it is where the thread does not come to answer.
std::optional<BoardSlot> slot_with_stack(const BoardFile &board, const Found &found)
{
	auto slot = board.slot(found.number, found.claim);
	if (!slot) return slot;
	const uint32_t asked = slot->answered + 1 + static_cast<uint32_t>(monotonic_us() % 1000000);
	const bool could_ask = board.ask(found.number, asked);
	const auto end = std::chrono::steady_clock::now() + 1s;
	while (could_ask && slot && slot->answered != asked && std::chrono::steady_clock::now() < end) {
		std::this_thread::sleep_for(10ms);
		slot = board.slot(found.number, found.claim);
	}
	if (slot && slot->answered != asked) slot->stack.clear(); // of an earlier question
	return slot;
}

int show_process(const DaemonConfig &config, const NowOptions &options)
{
	auto board = open_board(config, true);
	Json all = Json::array();
	std::string text;
	for (const Found &found : slots_of(*board, options.process)) {
		auto slot = slot_with_stack(*board, found);
		if (!slot || !slot->open || is_gone(*slot, proc)) continue;
		if (options.json) {
			all.push_back(slot_json(*slot));
			continue;
		}
		text += (text.empty() ? "" : "\n") + slot_text(*slot, output_width(), options.full);
		if (slot->stack.empty())
			text +=
				"\nPHP's stack did not come within a second: it is told at the next watched call or outermost "
				"function.\n";
	}
	put(options.json ? json_text(all, true) : text);
	if (text.empty() && all.empty())
		throw std::runtime_error("no request is running in process " + std::to_string(options.process));
	return 0;
}

int now(const DaemonConfig &config, const NowOptions &options)
{
	if (options.process) return show_process(config, options);
	for (;;) {
		Now found = requests_now(config);
		if (!options.application.empty())
			std::erase_if(found.open, [&](const BoardSlot &slot) { return slot.application != options.application; });
		const bool on_terminal = options.watch && terminal_width() > 0;
		if (on_terminal) put("\x1b[H\x1b[2J");
		put(options.json ? json_text(now_json(found), !options.watch) : now_text(found, list_width()));
		if (!options.watch) return 0;
		if (!options.json && !on_terminal) put("\n");
		if (fflush(stdout) != 0) return 1;
		std::this_thread::sleep_for(1s);
	}
}

} // namespace

Now requests_now(const DaemonConfig &config)
{
	auto board = open_board(config, false);
	Now now;
	std::map<int, std::pair<int64_t, int64_t>> threads; // by process: with an action, without
	const std::vector<uint64_t> claims = board->claims();
	for (uint32_t i = 0; i < claims.size(); i++) {
		if (!claims[i]) continue;
		auto slot = board->slot(i, claims[i]);
		if (!slot || is_gone(*slot, proc)) continue;
		auto &[busy, idle] = threads[slot->process];
		(slot->open ? busy : idle)++;
		if (slot->open) now.open.push_back(std::move(*slot));
	}
	std::sort(now.open.begin(), now.open.end(),
		[](const BoardSlot &a, const BoardSlot &b) { return a.begin_us < b.begin_us; });
	now.pools = pools_of(threads);
	return now;
}

std::string requests_now_json(const DaemonConfig &config)
{
	return json_text(now_json(requests_now(config)), false);
}

CommandRun add_now(CLI::App &command)
{
	auto options = std::make_shared<NowOptions>();
	command.add_option("process", options->process, "all of what this process or thread does, with PHP's own stack")
		->type_name("PID")
		->check(CLI::PositiveNumber);
	command.add_option("--app", options->application, "only this application")->type_name("APP");
	command.add_flag("--watch", options->watch, "again every second");
	command.add_flag("--full", options->full, "with PID: nothing is cut");
	command.add_flag("--json", options->json, "for programs");
	set_examples(command,
		{{"quorbit now --watch", "every request in flight, the longest first"},
			{"quorbit now 4711", "what process 4711 does, its last calls and where in the script it is"},
			{"quorbit now --json | jq '.requests[] | select(.age_us > 5000000)'", "those that take more than 5 s"}});
	return [options](const DaemonConfig &config) { return now(config, *options); };
}

} // namespace quorbit
