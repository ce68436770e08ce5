// `quorbit web`: what the store has, for a browser and for programs.
#pragma once

#include "base/config.h"

#include <functional>
#include <string>
#include <vector>

namespace quorbit {

struct WebOptions {
	std::string listen = "127.0.0.1:7180";
	std::vector<std::string> hosts; // names under which it may be asked, beside its own address
	std::string password_file;      // "" for a token of its own
	std::function<std::string(const DaemonConfig &config)> status; // for the API: the state of the host as JSON
	std::function<std::string(const DaemonConfig &config)> now;    // and the requests in flight
	bool open = false;                                             // in a browser
	bool sample = false;                                           // of a day that is made up, not of the store
};

// Serves until SIGINT or SIGTERM, as the owner of the store's folder when root starts it; returns the exit status.
// Prints the link to standard output. Throws std::runtime_error with a message for the operator when it cannot begin.
int run_web(const DaemonConfig &config, const WebOptions &options);

} // namespace quorbit
