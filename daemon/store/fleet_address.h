// Where the store of the fleet is.
#pragma once

#include "base/config.h"
#include "base/store_url.h"

namespace quorbit {

struct FleetAddress {
	StoreUrl url; // with its password
	std::string cluster;
};

// What a command's --store has in place of an address, for the one in applications.conf.
constexpr const char *configured_fleet = "fleet";

// What a command's --store says, else what applications.conf says. Throws std::runtime_error with a message for the
// operator when neither names any.
FleetAddress fleet_of(const DaemonConfig &config);

} // namespace quorbit
