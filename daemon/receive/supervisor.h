// A parent for the daemon where no service manager is one.
#pragma once

#include <functional>

namespace quorbit {

// The status of work that could not begin.
constexpr int status_not_started = 3;

// Runs work() in a child process, and again in a new one when that crashes or ends with a status that is not 0: at
// once, then after one, two and three seconds; after five times within a minute it gives up. The first child's
// status_not_started is no crash. Passes SIGTERM and SIGINT on and ends with the child, which gets SIGTERM should this
// process die. Closes `childs_descriptor` once the first child has it, and makes it -1 for the others.
// Returns the exit status for this process.
int supervise(const std::function<int()> &work, int &childs_descriptor);

} // namespace quorbit
