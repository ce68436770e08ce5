// The PHP processes of the host and what the kernel tells of each, read from a /proc tree.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quorbit {

enum class PhpServer { fpm, apache, cgi, built_in, cli, other };

enum class AgentState {
	loaded,
	replaced, // loaded, but its file has been replaced or deleted since: an older version
	off,      // loaded, and switched off by an option or in the pool's file
	missing,  // not loaded, though this PHP could load it
	unfit,    // not loaded, and this PHP could not: not a thread-safe PHP 5.6
	unseen,   // this account may not look
};

struct PhpProcess {
	int id = 0, parent = 0;
	PhpServer server = PhpServer::other;
	std::string pool;     // of FPM; the script of a command line, the address of a server that has one; else ""
	bool manages = false; // the parent of those that serve: it runs no request
	AgentState agent = AgentState::unseen;
	uid_t user = 0;
	std::vector<gid_t> groups; // the effective group first
	int64_t started_ms = 0;    // wall clock
	int64_t cpu_ticks = 0;     // processor time, in ticks of the kernel (sysconf(_SC_CLK_TCK))
	std::string executable;    // as far as it may be seen
	std::string root;          // the folder that it has as "/": a path below the /proc tree
	std::string config;        // of an FPM master: its configuration file, as it names it
};

// All of them, by number; processes that end meanwhile are left out. `proc` is "/proc", or a tree like it.
std::vector<PhpProcess> php_processes(const std::string &proc);

// The processor time of a process by now, in ticks; -1 when it has ended.
int64_t cpu_ticks_of(const std::string &proc, int process);

// "FPM", "Apache", "CGI", "built-in", "CLI" or "other"; "loaded", "old", "off", "missing", "unfit" or "unseen".
const char *name_of(PhpServer server);
const char *name_of(AgentState agent);

} // namespace quorbit
