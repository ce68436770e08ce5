// The table of checks.
#include "host/findings.h"

#include <algorithm>
#include <sys/stat.h>

namespace quorbit {

namespace {

using Findings = std::vector<Finding>;

using Groups = std::vector<const ProcessGroup *>;

std::vector<int> ids(const Groups &groups)
{
	std::vector<int> found;
	for (const ProcessGroup *group : groups) {
		for (const PhpProcess &process : group->processes) found.push_back(process.id);
	}
	return found;
}

// "FPM pool shop, pool www, processes 811, 812 and 3 more: "; the groups are of one server.
std::string who(const Groups &groups)
{
	constexpr size_t most = 3;
	const std::vector<int> processes = ids(groups);
	const std::string server = name_of(groups[0]->first().server);
	std::string text = server;
	for (size_t i = 0; i < groups.size(); i++) {
		const std::string title = title_of(groups[i]->first());
		if (title != server) text += (i ? "," : "") + title.substr(server.size());
	}
	text += processes.size() > 1 ? ", processes" : ", process";
	for (size_t i = 0; i < std::min(processes.size(), most); i++)
		text += (i ? ", " : " ") + std::to_string(processes[i]);
	return text + (processes.size() > most ? " and " + std::to_string(processes.size() - most) + " more: " : ": ");
}

// The groups in that state, those of one server together.
std::vector<Groups> in_state(const HostFacts &facts, AgentState state)
{
	std::vector<Groups> found;
	for (const ProcessGroup &group : facts.groups) {
		const PhpProcess &first = group.first();
		if (first.agent != state) continue;
		if (found.empty() || found.back()[0]->first().server != first.server) found.emplace_back();
		found.back().push_back(&group);
	}
	return found;
}

// When the first of them was started.
int64_t started_ms(const ProcessGroup &group)
{
	int64_t first = INT64_MAX;
	for (const PhpProcess &process : group.processes) first = std::min(first, process.started_ms);
	return first;
}

bool has_agent(const ProcessGroup &group)
{
	const AgentState state = group.first().agent;
	return state == AgentState::loaded || state == AgentState::replaced;
}

std::string restart(const ProcessGroup &group)
{
	switch (group.first().server) {
	case PhpServer::fpm: return "reload php-fpm";
	case PhpServer::apache: return "restart Apache; a graceful reload is not enough";
	default: return "start it again";
	}
}

// Every check looks at the facts and appends what it finds: text, then remedy.
using Look = void (*)(const HostFacts &facts, const char *check, Findings &findings);

void add(Findings &findings, const char *check, std::string what, std::string remedy, std::vector<int> processes = {})
{
	findings.push_back({check, std::move(what), std::move(remedy), std::move(processes)});
}

void socket_path(const HostFacts &facts, const char *check, Findings &findings)
{
	const std::string &socket = facts.daemon.socket;
	if (socket.size() <= longest_socket_path) return;
	add(findings, check,
		"the socket's path has " + std::to_string(socket.size()) + " bytes, and the kernel takes " +
			std::to_string(longest_socket_path) + " at most: no agent reaches a daemon there",
		"set zqs.runtime_root to a shorter path, in php.ini and with --root");
}

void folder_missing(const HostFacts &facts, const char *check, Findings &findings)
{
	if (facts.folder.there) return;
	const bool is_packages = facts.folder.path == "/var/log/quorbit";
	add(findings, check, "the folder " + facts.folder.path + " does not exist: nothing is reported, and no log says so",
		std::string(is_packages ? "systemd-tmpfiles --create quorbit.conf; without the packages " : "") +
			"run `make install`, or create it with mode 2750 and the web server's group");
}

void folder_closed(const HostFacts &facts, const char *check, Findings &findings)
{
	const FolderFacts &folder = facts.folder;
	if (folder.there && !(folder.mode & S_IXGRP))
		add(findings, check, folder.path + " is closed to its group " + folder.group_name, "chmod 2750 " + folder.path);
}

void folder_exposed(const HostFacts &facts, const char *check, Findings &findings)
{
	const FolderFacts &folder = facts.folder;
	if (folder.there && (folder.mode & S_IWOTH))
		add(findings, check, folder.path + " is writable for everybody, who can thus take the daemon's place",
			"chmod 2750 " + folder.path);
}

void log_missing(const HostFacts &facts, const char *check, Findings &findings)
{
	const FolderFacts &folder = facts.folder;
	if (folder.there && !folder.log_can_be_written)
		add(findings, check, "PHP's processes cannot write " + folder.path + "/php-agent.log",
			"install -m 0666 /dev/null " + folder.path + "/php-agent.log");
}

void no_daemon(const HostFacts &facts, const char *check, Findings &findings)
{
	const DaemonFacts &daemon = facts.daemon;
	if (daemon.answers || !facts.folder.there) return;
	if (daemon.process) {
		const std::string process = std::to_string(daemon.process);
		add(findings, check, "no daemon answers on " + daemon.socket + ", though process " + process + " is running",
			"look at the end of " + daemon.log + "; kill " + process + " ends it, and PHP starts the next one",
			{daemon.process});
	} else if (facts.folder.start_tried) {
		add(findings, check, "no daemon answers on " + daemon.socket,
			"the end of " + daemon.log +
				" says why it ended; the next PHP process to start, as root or as the "
				"folder's owner, starts another: `php -v` does");
	} else {
		add(findings, check, "no daemon answers on " + daemon.socket + ", and no agent has ever tried to start one",
			"see that php.ini has extension=zqprof.so: `php --ri quorbit` says \"enabled\"");
	}
}

void daemon_old(const HostFacts &facts, const char *check, Findings &findings)
{
	if (!facts.daemon.older) return;
	const std::string process = std::to_string(facts.daemon.process);
	add(findings, check, "the daemon, process " + process + ", is older than the quorbit that is installed",
		"kill " + process + ", and the next PHP process to start, as root or as its owner, starts the new one",
		{facts.daemon.process});
}

void agent_old(const HostFacts &facts, const char *check, Findings &findings)
{
	for (const Groups &groups : in_state(facts, AgentState::replaced)) {
		add(findings, check, who(groups) + "zqprof.so has been replaced or deleted since they loaded it",
			restart(*groups[0]), ids(groups));
	}
}

// Of a server, not of a command line: whoever runs a script without the agent may mean to.
void agent_missing(const HostFacts &facts, const char *check, Findings &findings)
{
	for (const Groups &groups : in_state(facts, AgentState::missing)) {
		if (groups[0]->first().server == PhpServer::cli) continue;
		add(findings, check, who(groups) + "zqprof.so is not loaded, though this PHP could load it",
			"add extension=zqprof.so to the php.ini that it reads, and " + restart(*groups[0]) +
				"; if the line is there, PHP's error log says why it was not loaded",
			ids(groups));
	}
}

void agent_off(const HostFacts &facts, const char *check, Findings &findings)
{
	for (const Groups &groups : in_state(facts, AgentState::off)) {
		add(findings, check, who(groups) + "the agent is switched off (zqs.agent_enabled)",
			"remove that setting where the server or pool is configured, and " + restart(*groups[0]), ids(groups));
	}
}

void no_access(const HostFacts &facts, const char *check, Findings &findings)
{
	const FolderFacts &folder = facts.folder;
	for (const ProcessGroup &group : facts.groups) {
		const bool concerned = folder.there && has_agent(group) && !group.first().manages && group.report.same_folder;
		if (!concerned || group.report.reaches) continue;
		const std::string &account = group.report.account;
		// Nobody is to join root's group for this.
		const std::string remedy = folder.group_name == "root"
			? "chgrp -R \"$(id -gn " + account + ")\" " + folder.path
			: "usermod -aG " + folder.group_name + " " + account + ", then " + restart(group);
		add(findings, check,
			who({&group}) + "account " + account + " is not in group " + folder.group_name +
				": it can reach neither the socket nor the log",
			remedy, ids({&group}));
	}
}

void other_folder(const HostFacts &facts, const char *check, Findings &findings)
{
	for (const ProcessGroup &group : facts.groups) {
		if (!has_agent(group) || group.first().manages || group.report.same_folder) continue;
		add(findings, check, who({&group}) + "they see no " + facts.folder.path + " (chroot or container)",
			"mount --bind the folder at the same path there, and /proc as well", ids({&group}));
	}
}

// Of a server: a command line reports when its script ends.
void silent(const HostFacts &facts, const char *check, Findings &findings)
{
	if (!facts.daemon.answers || facts.daemon.refusal) return;
	for (const ProcessGroup &group : facts.groups) {
		const PhpProcess &first = group.first();
		const ProcessReport &report = group.report;
		const bool concerned = first.agent == AgentState::loaded && !first.manages && report.reaches &&
			report.same_folder && report.at_work && first.server != PhpServer::cli && first.server != PhpServer::other;
		const int64_t since = std::max(report.packet_ms, started_ms(group));
		if (!concerned || facts.now_ms - since < silent_ms) continue;
		add(findings, check,
			who({&group}) + "no packet for " + std::to_string((facts.now_ms - since) / minute_ms) +
				" min, though at work",
			"is it a single request that takes so long? else look at the end of " + facts.folder.path +
				"/php-agent.log, and whether zqs.urls_captured or zqs.agent_enabled leave these requests out",
			ids({&group}));
	}
}

void packets_lost(const HostFacts &facts, const char *check, Findings &findings)
{
	for (const LostPackets &lost : facts.lost) {
		add(findings, check,
			std::to_string(lost.count) + " packets of " + (lost.application.empty() ? "(no name)" : lost.application) +
				" are missing from the last hour: " + lost.reason,
			"see the end of " + facts.daemon.log);
	}
}

void not_all_seen(const HostFacts &facts, const char *check, Findings &findings)
{
	if (facts.daemon.refusal)
		add(findings, check, "what was received is not for this account: " + *facts.daemon.refusal,
			"run `quorbit status` as root");
	else if (!facts.sees_all)
		add(findings, check, "this account may not look into every process", "run `quorbit status` as root");
}

struct Check {
	const char *name;
	Look look;
};

constexpr Check checks[] = {
	{"socket_path", socket_path},
	{"folder_missing", folder_missing},
	{"folder_closed", folder_closed},
	{"folder_exposed", folder_exposed},
	{"log_missing", log_missing},
	{"no_daemon", no_daemon},
	{"daemon_old", daemon_old},
	{"agent_old", agent_old},
	{"agent_missing", agent_missing},
	{"agent_off", agent_off},
	{"no_access", no_access},
	{"other_folder", other_folder},
	{"silent", silent},
	{"packets_lost", packets_lost},
	{"not_all_seen", not_all_seen},
};

} // namespace

std::vector<Finding> findings_of(const HostFacts &facts)
{
	Findings findings;
	for (const Check &check : checks) check.look(facts, check.name, findings);
	return findings;
}

bool may_enter(const FolderFacts &folder, uid_t user, const std::vector<gid_t> &groups)
{
	if (user == 0) return true;
	if (user == folder.owner) return folder.mode & S_IXUSR;
	if (std::find(groups.begin(), groups.end(), folder.group) != groups.end()) return folder.mode & S_IXGRP;
	return folder.mode & S_IXOTH;
}

std::string title_of(const PhpProcess &process)
{
	std::string title = name_of(process.server);
	if (process.manages) return title + " master";
	if (process.pool.empty()) return title;
	return title + (process.server == PhpServer::fpm ? " pool " : " ") + process.pool;
}

} // namespace quorbit
