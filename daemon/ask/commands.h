// The commands of the operator. Each prints to standard output and returns the exit status; they throw
// std::runtime_error with a message for the operator.
#pragma once

#include "base/config.h"

#include <cstdint>
#include <optional>
#include <string>

namespace quorbit {

struct ShowOptions {
	std::optional<int64_t> id; // one action whole; else a list
	int64_t most = 20;
	std::string application; // "" for all
	bool json = false;
	bool full = false; // of one action: nothing summed up or cut
};

// The newest actions, or one.
int show(const DaemonConfig &config, const ShowOptions &options);
// The last ten actions of the application ("": of all), then each as it comes; returns when nobody reads any more.
int tail(const DaemonConfig &config, const std::string &application, bool json);
// Sums per action name over the last `since_seconds`.
int top(const DaemonConfig &config, const std::string &application, int64_t since_seconds);
// Who has asked and reported; 1 when no daemon answers.
int status(const DaemonConfig &config);
// Orders a thread profile of so many seconds, waits for it and prints it.
int profile(const DaemonConfig &config, const std::string &application, int64_t seconds);

} // namespace quorbit
