// quorbit status: who has asked and reported, and what to check when nothing comes.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "receive/daemonize.h"
#include "store/open_reader.h"
#include "store/profile_orders.h"

#include <algorithm>
#include <stdexcept>
#include <unistd.h>

namespace quorbit {

namespace {

// Whether the program that this process runs has been replaced on disk. False also when that cannot be seen.
bool runs_replaced_program(int process)
{
	char target[4096];
	ssize_t length = readlink(("/proc/" + std::to_string(process) + "/exe").c_str(), target, sizeof target);
	return length > 0 && std::string_view(target, static_cast<size_t>(length)).ends_with(" (deleted)");
}

std::string daemon_text(bool answers, int process)
{
	if (!answers) return "No daemon answers.\n";
	std::string text =
		"The daemon is running" + (process ? " as process " + std::to_string(process) : std::string()) + ".\n";
	if (!process || !runs_replaced_program(process)) return text;
	return text + "It is older than the quorbit that is installed: end it (kill " + std::to_string(process) +
		"), and the next PHP process to start, as root or its owner, starts the new one.\n";
}

int status(const DaemonConfig &config)
{
	bool answers = daemon_answers(config);
	auto refusal = access_refusal(config);
	if (refusal && !answers) throw std::runtime_error(*refusal);
	put(daemon_text(answers, running_daemon(config)));
	if (refusal) {
		put("What it received is not for this account: " + *refusal + ".\n");
		return 0;
	}
	std::vector<ApplicationRow> applications;
	if (has_store(config)) {
		applications = open_reader(config)->applications();
		put(profiles_text(open_profiles(config.store_file()), wall_clock_ms()));
	}
	auto has_sent = [](const ApplicationRow &row) { return row.packets > 0; };
	bool received = std::any_of(applications.begin(), applications.end(), has_sent);
	put("\n" + status_text(applications, wall_clock_ms()));
	if (has_store(config)) put(dropped_text(open_reader(config)->dropped({wall_clock_ms() - 86400000}, "")));
	if (!received) put("Nothing has been received yet.\n");
	if (!received || !answers) put(checks_text(config));
	return answers ? 0 : 1;
}

} // namespace

CommandRun add_status(CLI::App &)
{
	return status;
}

} // namespace quorbit
