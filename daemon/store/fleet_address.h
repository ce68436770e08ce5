// Where the store of the fleet is.
#pragma once

#include "base/config.h"
#include "base/store_url.h"

namespace quorbit {

struct FleetAddress {
	StoreUrl url; // with its password
	std::string cluster;
};

// As applications.conf says. Throws std::runtime_error with a message for the operator when it names none.
FleetAddress fleet_of(const DaemonConfig &config);

} // namespace quorbit
