// The files by which others know that a daemon is there: its lock and its pid file.
#pragma once

#include "base/config.h"

namespace quorbit {

// One process's lock, which its children share, and the pid file of the one that serves.
class Presence {
public:
	// Takes the lock, unless a daemon answers; one that has the lock and does not listen yet is waited for. Throws
	// std::runtime_error when neither is to be had within a second.
	explicit Presence(const DaemonConfig &config);

	// Whether the lock is ours; else a daemon answers.
	bool is_ours() const { return lock_ != -1; }

	// Makes sure that both are there under their names: the folder may have been made again. False when another process
	// has the lock by now. Throws std::runtime_error when they cannot be made.
	bool keep();

	// Removes the pid file when it is this process's. The lock goes with the processes that share it.
	void withdraw() const;

private:
	const DaemonConfig config_;
	int lock_ = -1;
};

// The process id in the pid file, 0 when there is none.
int process_in(const std::string &pid_file);

} // namespace quorbit
