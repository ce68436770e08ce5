// What the doctor looks at on the host: daemons, what accounts may do, disk, logs, settings of FPM's pools.
#include "ask/doctor_parts.h"
#include "base/number.h"
#include "host/fpm_pools.h"
#include "host/proc_files.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorbit {

std::vector<DaemonProcess> daemons_on_host(const std::string &proc)
{
	std::vector<DaemonProcess> found;
	std::error_code failed;
	for (const auto &entry : std::filesystem::directory_iterator(proc, failed)) {
		int id = 0;
		if (!parse_number(entry.path().filename().string(), id)) continue;
		const std::string folder = entry.path().string();
		std::string program = link_target(folder + "/exe");
		program = program.substr(0, program.find(" (deleted)"));
		if (!program.ends_with("/quorbit")) continue;
		const auto words = read_proc_arguments(folder);
		const auto option = std::find(words.begin(), words.end(), "-f");
		const auto stat = read_proc_stat(folder);
		const bool serves = stat && stat->command != "quorbit-parent"; // receive/supervisor.cpp
		if (option == words.end() || option + 1 == words.end() || !serves) continue;
		found.push_back({id, *(option + 1)});
	}
	return found;
}

namespace {

// In a process of its own, which takes this account: 0, or errno of what failed.
[[noreturn]] void try_as(const PhpProcess &process, const std::string &socket_file, const std::string &log)
{
	const bool changed = setgroups(process.groups.size(), process.groups.data()) == 0 &&
		setresgid(process.groups[0], process.groups[0], process.groups[0]) == 0 &&
		setresuid(process.user, process.user, process.user) == 0;
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	socket_file.copy(address.sun_path, sizeof(address.sun_path) - 1);
	const int file = socket(AF_UNIX, SOCK_STREAM, 0);
	if (!changed || file == -1) _exit(0); // not this host's fault
	if (connect(file, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) _exit(errno);
	_exit(open(log.c_str(), O_WRONLY | O_APPEND) == -1 ? errno | 0x80 : 0);
}

// What an account of PHP is refused; "" for nothing.
std::string refusal_as(const PhpProcess &process, const DaemonConfig &config)
{
	const std::string log = config.folder() + "/php-agent.log";
	const pid_t child = fork();
	if (child == -1) return "";
	if (child == 0) try_as(process, config.socket_file, log);
	int status = 0;
	while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
	const int failed = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
	if (failed == 0) return "";
	const bool writing = failed & 0x80;
	return (writing ? "write " + log : "connect to " + config.socket_file) + ": " + strerror(failed & 0x7F);
}

} // namespace

std::vector<AccountRefusal> account_refusals(const HostFacts &host, const DaemonConfig &config)
{
	std::vector<AccountRefusal> found;
	if (geteuid() != 0 || !host.daemon.answers) return found;
	std::set<std::pair<uid_t, std::vector<gid_t>>> tried;
	for (const ProcessGroup &group : host.groups) {
		const PhpProcess &process = group.first();
		const bool concerned = process.agent == AgentState::loaded && !process.manages && group.report.reaches &&
			group.report.same_folder && !process.groups.empty();
		if (!concerned || !tried.emplace(process.user, process.groups).second) continue;
		const std::string refusal = refusal_as(process, config);
		if (!refusal.empty()) found.push_back({group.report.account, refusal});
	}
	return found;
}

int64_t free_bytes_in(const std::string &folder)
{
	struct statvfs facts;
	if (statvfs(folder.c_str(), &facts) != 0) return INT64_MAX;
	return static_cast<int64_t>(facts.f_bavail) * static_cast<int64_t>(facts.f_frsize);
}

std::string end_of_log(const std::string &path, size_t most)
{
	FILE *file = fopen(path.c_str(), "rbe");
	if (!file) return "";
	std::string text;
	if (fseek(file, 0, SEEK_END) == 0) {
		const long size = ftell(file);
		fseek(file, std::max(0L, size - static_cast<long>(most)), SEEK_SET);
		text.resize(most);
		text.resize(fread(text.data(), 1, most, file));
	}
	fclose(file);
	return text;
}

std::vector<std::string> policy_denials(const std::string &folder)
{
	constexpr size_t most_bytes = size_t{1} << 20;
	std::vector<std::string> found;
	for (const char *log : {"/var/log/audit/audit.log", "/var/log/kern.log"}) {
		std::istringstream lines(end_of_log(log, most_bytes));
		std::string newest;
		for (std::string line; std::getline(lines, line);) {
			const bool refuses = line.find("denied") != std::string::npos || line.find("DENIED") != std::string::npos;
			const bool ours = line.find(folder) != std::string::npos || line.find("zqprof.so") != std::string::npos ||
				line.find("\"quorbit") != std::string::npos;
			if (refuses && ours) newest = line;
		}
		if (!newest.empty()) found.push_back(newest);
	}
	return found;
}

std::map<std::string, std::string> terminate_timeouts(const HostFacts &host)
{
	std::map<std::string, std::string> found;
	for (const ProcessGroup &group : host.groups) {
		for (const PhpProcess &process : group.processes) {
			if (process.config.empty() || process.agent != AgentState::loaded) continue;
			for (const auto &[pool, settings] : settings_of_pools(process.root, process.config)) {
				const auto timeout = settings.find("request_terminate_timeout");
				if (timeout != settings.end() && atoi(timeout->second.c_str()) > 0) found[pool] = timeout->second;
			}
		}
	}
	return found;
}

} // namespace quorbit
