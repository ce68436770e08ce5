// quorbit status: who has asked and reported, and what to check when nothing comes.
#include "ask/command.h"

#include "base/clock.h"
#include "print/output.h"
#include "print/report.h"
#include "receive/daemonize.h"
#include "store/open_reader.h"

#include <algorithm>
#include <stdexcept>
#include <unistd.h>

namespace quorbit {

namespace {

int status(const DaemonConfig &config)
{
	const std::string folder = config.folder();
	bool closed_to_us = access(folder.c_str(), F_OK) == 0 && access(folder.c_str(), R_OK | X_OK) != 0;
	if (closed_to_us) throw std::runtime_error("only root and its group may look into " + folder);
	int process = running_daemon(config);
	bool answers = daemon_answers(config);
	if (!answers)
		put("No daemon is running.\n");
	else
		put("The daemon is running" + (process ? " as process " + std::to_string(process) : std::string()) + ".\n");
	auto applications = has_store(config) ? open_reader(config)->applications() : std::vector<ApplicationRow>();
	auto has_sent = [](const ApplicationRow &row) { return row.packets > 0; };
	bool received = std::any_of(applications.begin(), applications.end(), has_sent);
	put("\n" + status_text(applications, wall_clock_ms()));
	if (has_store(config)) put(dropped_text(open_reader(config)->dropped({wall_clock_ms() - 86400000}, "")));
	if (!received) put(nothing_received_text(config));
	return answers ? 0 : 1;
}

} // namespace

CommandRun add_status(CLI::App &)
{
	return status;
}

} // namespace quorbit
