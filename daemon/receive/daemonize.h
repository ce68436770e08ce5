// Becoming a daemon: one per runtime root, independent of the process that happened to start it.
#pragma once

#include "base/config.h"

namespace quorbit {

// Runs the daemon, as the owner of its folder when root starts it. In the background unless `foreground`, under a
// parent of its own that starts it again after a crash: returns in the calling process as soon as the daemon listens or
// has failed. In the foreground there is no such parent; whoever runs it so watches it. Returns the exit status: 0 also
// when another one is running already, 1 when the daemon cannot run (the reason goes to the log and to standard error).
// To be called before anything else opened descriptors or started threads.
int run_daemon(const std::string &config_path, bool foreground);

// The process id in the pid file when that process is alive, else 0.
int running_daemon(const DaemonConfig &config);

// Whether something accepts connections on the socket.
bool daemon_answers(const DaemonConfig &config);

// Whether the process runs a program whose file has been replaced or deleted since: an older version than the one
// installed. False also when this process may not know (it is another account's).
bool runs_replaced_binary(int process);

} // namespace quorbit
