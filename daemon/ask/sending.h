// What `quorbit status` tells of sending to the store of a fleet.
#pragma once

#include "base/config.h"
#include "host/findings.h"

#include <optional>

namespace quorbit {

struct Sending {
	std::string text;               // a line, "" while nothing is to be sent
	std::optional<Finding> finding; // that nothing arrives, or late
};

// Of the daemon's store as it is now, which this account may read. Throws std::runtime_error.
Sending sending_of(const DaemonConfig &config, int64_t now_ms);

} // namespace quorbit
