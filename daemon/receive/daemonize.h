// Becoming a daemon: one per runtime root, independent of the process that happened to start it.
#pragma once

#include "base/config.h"

namespace quorbit {

// Runs the daemon, as the owner of its folder when root starts it. In the background unless `foreground`: returns in
// the calling process as soon as the daemon listens or has failed. Returns the exit status: 0 also when another one is
// running already, 1 when the daemon cannot run (the reason goes to the log and to standard error). To be called before
// anything else opened descriptors or started threads.
int run_daemon(const std::string &config_path, bool foreground);

// The process id in the pid file when that process is alive, else 0.
int running_daemon(const DaemonConfig &config);

// Whether something accepts connections on the socket.
bool daemon_answers(const DaemonConfig &config);

} // namespace quorbit
