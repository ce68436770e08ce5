// The requests in flight, gathered for whoever tells of them.
#pragma once

#include "ask/command.h"
#include "print/report_now.h"

namespace quorbit {

// Throws std::runtime_error, with a message for the operator, when there is no board or it may not be read.
Now requests_now(const DaemonConfig &config);

// What `quorbit now --json` prints, in one line.
std::string requests_now_json(const DaemonConfig &config);

CommandRun add_now(CLI::App &command);

} // namespace quorbit
