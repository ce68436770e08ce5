// What is known of each application, and what may be wrong when nothing is.
#include "print/report.h"

#include "receive/daemonize.h"
#include "base/text.h"
#include "base/clock.h"

#include <sys/stat.h>
#include <unistd.h>

namespace quorbit {

namespace {

std::string when(int64_t wall_ms, int64_t process, int64_t now_wall_ms)
{
	if (wall_ms == 0) return "never";
	return local_time(wall_ms) + " (" + ago(wall_ms, now_wall_ms) + "), process " + std::to_string(process);
}

bool exists(const std::string &path)
{
	return access(path.c_str(), F_OK) == 0;
}

} // namespace

std::string dropped_text(const std::vector<DroppedRow> &rows)
{
	std::string out = rows.empty() ? "" : "Missing:\n";
	for (const DroppedRow &row : rows) {
		const std::string name = row.application.empty() ? "(no name)" : printable(row.application);
		out += "  " + std::to_string(row.count) + " packets of " + name + ": " + printable(row.reason) + "\n";
	}
	return out;
}

std::string status_text(const std::vector<ApplicationRow> &applications, int64_t now_wall_ms)
{
	std::string out;
	for (const ApplicationRow &application : applications) {
		out += (application.name.empty() ? "(no name)" : printable(application.name)) + "\n";
		out += "  last query    " + when(application.query_ms, application.query_process, now_wall_ms) + "\n";
		out += "  last packet   " + when(application.packet_ms, application.packet_process, now_wall_ms) + "\n";
		out += "  packets       " + std::to_string(application.packets) + "\n";
		out += "  PHP           " + printable(application.php_version + " " + application.sapi) + "\n";
		out += "  given         ";
		std::string_view given = application.given;
		if (given.empty()) out += "nothing: the settings of php.ini hold\n";
		for (bool first = true; !given.empty(); first = false) {
			std::string_view line = given.substr(0, given.find('\n'));
			given.remove_prefix(std::min(given.size(), line.size() + 1));
			out += (first ? "" : "                ") + printable(line) + "\n";
		}
	}
	return out;
}

std::string profiles_text(const std::vector<ProfileRow> &profiles, int64_t now_wall_ms)
{
	std::string out;
	for (const ProfileRow &row : profiles) {
		const std::string name = printable(row.application);
		out += "A profile of " + name + ", " + std::to_string(row.seconds) + " s, ";
		if (row.started_ms)
			out += "was started " + ago(row.started_ms, now_wall_ms) + " by process " + std::to_string(row.process);
		else
			out += "waits since " + local_time(row.ordered_ms) + " for a process to ask";
		out += "; `quorbit profile --stop " + name + "` ends it.\n";
	}
	return out;
}

std::string checks_text(const DaemonConfig &config)
{
	std::string out;
	std::string folder = config.folder();
	auto line = [&out](bool good, const std::string &text) {
		out += std::string(good ? "  ok     " : "  CHECK  ") + printable(text) + "\n";
	};
	struct stat status;
	if (stat(folder.c_str(), &status) != 0) {
		line(false, "the folder " + folder + " does not exist: create it, mode 2750, group of the web server");
	} else {
		bool shared = status.st_mode & S_IXGRP, exposed = status.st_mode & S_IWOTH;
		line(shared && !exposed,
			"the folder " + folder +
				(!shared          ? " is closed to its group: chmod 2750"
						: exposed ? " is writable for everybody: chmod 2750"
								  : " is open to its group, which PHP's processes must be in"));
	}
	bool answers = daemon_answers(config);
	line(answers,
		answers ? "the daemon answers on " + config.socket_file : "no daemon answers on " + config.socket_file);
	if (!answers) {
		int process = running_daemon(config);
		if (process)
			line(false, "process " + std::to_string(process) + " of the pid file is running, but does not answer");
		bool configured = exists(folder + "/.quorbit.cfg");
		line(configured,
			configured ? "an agent has tried to start the daemon: " + config.log_file + " says how it went"
					   : "no agent has ever tried to start the daemon: is the extension loaded? (php -m)");
	}
	out += "  Then: php --ri quorbit    \"enabled\", and zqs.runtime_root as that PHP sees it\n";
	out += "        " + folder + "/php-agent.log    what the agent could not do\n";
	return out;
}

} // namespace quorbit
