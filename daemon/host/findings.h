// What is amiss on the host, and what to do about it: facts in, findings out. `quorbit status` prints them, and whoever
// else tells of the host's state takes them from here.
#pragma once

#include "base/clock.h"
#include "host/processes.h"

#include <optional>
#include <string>
#include <vector>

namespace quorbit {

// The folder of socket and log.
struct FolderFacts {
	std::string path;
	bool there = false;
	uid_t owner = 0;
	gid_t group = 0;
	mode_t mode = 0;
	uint64_t device = 0, inode = 0;
	std::string group_name;
	bool log_can_be_written = false; // there is a php-agent.log for all, or processes may make it
	bool start_tried = false;        // an agent has written the daemon's configuration
};

// What the kernel takes as the path of a socket, in bytes (unix(7)).
constexpr size_t longest_socket_path = 107;

struct DaemonFacts {
	std::string socket, log;
	bool answers = false;
	int process = 0;                    // of the pid file, 0 when it is not alive
	bool older = false;                 // its program has been replaced since it was started
	std::optional<std::string> refusal; // why this account may not read what was received
};

// What a process has sent. Times are of the wall clock, 0 for none that is known.
struct ProcessReport {
	std::vector<std::string> applications;
	int64_t query_ms = 0, packet_ms = 0;
	bool at_work = false; // it has just used processor time
	std::string account;  // its name
	bool reaches = true;  // whether it can come to the socket, as far as can be told
	bool same_folder =
		true; // the folder's path leads it to the folder that we see; else it is in a chroot or container
};

// Processes of one server, pool, account and state of the agent.
struct ProcessGroup {
	std::vector<PhpProcess> processes;
	ProcessReport report; // of all: the latest times, every application

	const PhpProcess &first() const { return processes.front(); }
};

struct LostPackets {
	std::string application, reason;
	int64_t count = 0;
};

struct HostFacts {
	FolderFacts folder;
	DaemonFacts daemon;
	std::vector<ProcessGroup> groups;
	std::vector<LostPackets> lost; // in the last hour
	int64_t now_ms = 0;
	bool sees_all = true; // this account may look into every process
};

struct Finding {
	std::string check;  // which row of the table: a word for programs
	std::string what;   // "FPM pool client: ..."
	std::string remedy; // what to do, as a sentence
	std::vector<int> processes;
};

// A process that has been working for this long and has sent nothing is a finding.
constexpr int64_t silent_ms = 5 * minute_ms;

// In the order of the table of checks; empty when nothing is amiss.
std::vector<Finding> findings_of(const HostFacts &facts);

// Whether a process with these ids may enter the folder.
bool may_enter(const FolderFacts &folder, uid_t user, const std::vector<gid_t> &groups);

// "FPM pool www", "Apache", "CLI job.php"
std::string title_of(const PhpProcess &process);

} // namespace quorbit
