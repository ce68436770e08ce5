// Gathering: /proc, the folder, the daemon, and what the store knows of senders.
#include "ask/host_state.h"

#include "base/clock.h"
#include "host/proc_files.h"
#include "receive/daemonize.h"
#include "store/open_reader.h"

#include <algorithm>
#include <chrono>
#include <grp.h>
#include <map>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr int minutes_looked_back = 60;

FolderFacts folder_facts(const DaemonConfig &config)
{
	FolderFacts folder;
	folder.path = config.folder();
	struct stat status;
	if (stat(folder.path.c_str(), &status) != 0) return folder;
	folder.there = true;
	folder.owner = status.st_uid;
	folder.group = status.st_gid;
	folder.mode = status.st_mode;
	folder.device = status.st_dev;
	folder.inode = status.st_ino;
	const struct group *group = getgrgid(status.st_gid);
	folder.group_name = group ? group->gr_name : std::to_string(status.st_gid);
	folder.start_tried = access((folder.path + "/.quorbit.cfg").c_str(), F_OK) == 0;
	const bool may_look = access(folder.path.c_str(), X_OK) == 0;
	struct stat log;
	const bool log_there = stat((folder.path + "/php-agent.log").c_str(), &log) == 0;
	folder.log_can_be_written = !may_look || (log_there ? (log.st_mode & S_IWOTH) : (folder.mode & S_IWGRP));
	return folder;
}

DaemonFacts daemon_facts(const DaemonConfig &config)
{
	DaemonFacts daemon;
	daemon.socket = config.socket_file;
	daemon.log = config.log_file;
	daemon.answers = daemon.socket.size() <= longest_socket_path && daemon_answers(config);
	daemon.process = running_daemon(config);
	daemon.older = daemon.answers && daemon.process && runs_replaced_binary(daemon.process);
	daemon.refusal = access_refusal(config);
	return daemon;
}

std::string account_name(uid_t user)
{
	const struct passwd *entry = getpwuid(user);
	return entry ? entry->pw_name : std::to_string(user);
}

// Whether the process finds our folder under the folder's path; true when this account cannot tell.
bool sees_folder(const FolderFacts &folder, const PhpProcess &process)
{
	if (link_target(process.root).empty()) return true;
	struct stat status;
	if (stat((process.root + folder.path).c_str(), &status) != 0) return errno != ENOENT;
	return status.st_ino == folder.inode && status.st_dev == folder.device;
}

using Reports = std::map<int, ProcessReport>; // by process

void add_application(ProcessReport &report, const std::string &name)
{
	auto &all = report.applications;
	if (std::find(all.begin(), all.end(), name) == all.end()) all.push_back(name);
}

// What the store knows: minute by minute backwards, until something of every process has been found that should send.
void add_packets(Reader &store, const std::vector<PhpProcess> &processes, int64_t now_ms, Reports &reports)
{
	std::map<int, const PhpProcess *> known, silent;
	for (const PhpProcess &process : processes) {
		known[process.id] = &process;
		if (process.agent == AgentState::loaded && !process.manages) silent[process.id] = &process;
	}
	int64_t until_ms = INT64_MAX;
	for (int i = 1; i <= minutes_looked_back && (i == 1 || !silent.empty()); i++) {
		const int64_t from_ms = now_ms - i * minute_ms;
		for (const SenderRow &row : store.senders({from_ms, until_ms})) {
			const int id = static_cast<int>(row.process);
			// A number that another process had before it.
			if (!known.contains(id) || row.packet_ms < known[id]->started_ms) continue;
			reports[id].packet_ms = std::max(reports[id].packet_ms, row.packet_ms);
			add_application(reports[id], row.application);
			silent.erase(id);
		}
		until_ms = from_ms;
	}
}

void add_queries(
	const std::vector<ApplicationRow> &applications, const std::vector<PhpProcess> &processes, Reports &reports)
{
	for (const ApplicationRow &row : applications) {
		for (const PhpProcess &process : processes) {
			if (process.id != row.query_process || row.query_ms < process.started_ms) continue;
			ProcessReport &report = reports[process.id];
			report.query_ms = std::max(report.query_ms, row.query_ms);
			add_application(report, row.name);
		}
	}
}

// Whether those that have sent nothing for long use the processor.
void see_who_works(const std::vector<PhpProcess> &processes, const std::string &proc, int64_t now_ms, Reports &reports)
{
	constexpr int64_t busy_ticks = 3; // 30 ms of the time between the two looks
	std::vector<const PhpProcess *> quiet;
	for (const PhpProcess &process : processes) {
		const bool serves = process.agent == AgentState::loaded && !process.manages && process.server != PhpServer::cli;
		const int64_t since = std::max(reports[process.id].packet_ms, process.started_ms);
		if (serves && now_ms - since >= silent_ms) quiet.push_back(&process);
	}
	if (quiet.empty()) return;
	std::map<int, int64_t> before;
	for (const PhpProcess *process : quiet) before[process->id] = cpu_ticks_of(proc, process->id);
	std::this_thread::sleep_for(std::chrono::milliseconds(330));
	for (const PhpProcess *process : quiet)
		reports[process->id].at_work = cpu_ticks_of(proc, process->id) - before[process->id] >= busy_ticks;
}

void add_to_group(ProcessGroup &group, PhpProcess process, const ProcessReport &report)
{
	ProcessReport &all = group.report;
	if (group.processes.empty()) all = report;
	all.query_ms = std::max(all.query_ms, report.query_ms);
	all.packet_ms = std::max(all.packet_ms, report.packet_ms);
	all.at_work = all.at_work || report.at_work;
	for (const std::string &name : report.applications) add_application(all, name);
	group.processes.push_back(std::move(process));
}

std::vector<ProcessGroup> groups_of(
	const std::vector<PhpProcess> &processes, const FolderFacts &folder, Reports &reports)
{
	using Key = std::tuple<PhpServer, bool, std::string, uid_t, AgentState, bool, bool>;
	std::map<Key, ProcessGroup> groups;
	for (const PhpProcess &process : processes) {
		ProcessReport &report = reports[process.id];
		report.account = account_name(process.user);
		report.reaches = may_enter(folder, process.user, process.groups);
		report.same_folder = !folder.there || sees_folder(folder, process);
		add_to_group(groups[{process.server, !process.manages, process.pool, process.user, process.agent,
						 report.reaches, report.same_folder}],
			process, report);
	}
	std::vector<ProcessGroup> list;
	for (auto &[key, group] : groups) list.push_back(std::move(group));
	return list;
}

} // namespace

HostFacts host_state(
	const DaemonConfig &config, Reader *store, const std::vector<ApplicationRow> &applications, const std::string &proc)
{
	HostFacts facts;
	facts.now_ms = wall_clock_ms();
	facts.folder = folder_facts(config);
	facts.daemon = daemon_facts(config);
	const auto processes = php_processes(proc);
	Reports reports;
	if (store) add_packets(*store, processes, facts.now_ms, reports);
	add_queries(applications, processes, reports);
	see_who_works(processes, proc, facts.now_ms, reports);
	facts.groups = groups_of(processes, facts.folder, reports);
	facts.sees_all = std::none_of(processes.begin(), processes.end(),
		[](const PhpProcess &process) { return process.agent == AgentState::unseen; });
	if (store) {
		for (const DroppedRow &row : store->dropped({facts.now_ms - minutes_looked_back * minute_ms}, ""))
			facts.lost.push_back({row.application, row.reason, row.count});
	}
	return facts;
}

} // namespace quorbit
