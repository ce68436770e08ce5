// The configuration file that the agent writes when it starts the daemon (".quorbit.cfg"), and the files that lie
// beside it.
#pragma once

#include <string>
#include <string_view>

namespace quorbit {

struct DaemonConfig {
	std::string log_level = "info";
	std::string log_file; // "" for no log
	std::string pid_file;
	std::string socket_file;
	std::string store_url = {}; // of the fleet's store that a command is to read; "" for the daemon's own

	// The folder of the pid file, without a slash at its end.
	std::string folder() const;
	std::string fresh_pid_file() const;    // beside the pid file, which it becomes
	std::string lock_file() const;         // beside the pid file
	std::string store_file() const;        // "quorbit.db"
	std::string applications_file() const; // "applications.conf"
};

// Reads "key=value" lines; keys that the local daemon has no use for (the collector's address, certificates, the proxy)
// are skipped. Relative paths are resolved against the current folder. Throws std::runtime_error with a message for
// the operator when a file name that the daemon needs is missing.
DaemonConfig parse_daemon_config(std::string_view text);

// The same from a file. Throws std::runtime_error also when it cannot be read.
DaemonConfig read_daemon_config(const std::string &path);

// The same for the daemon itself, which writes where the file says. Throws std::runtime_error also when it is neither
// root's nor this process's user's.
DaemonConfig read_trusted_config(const std::string &path);

// What the agent would write for this runtime root ("/var" unless set otherwise).
DaemonConfig default_daemon_config(const std::string &runtime_root);

} // namespace quorbit
