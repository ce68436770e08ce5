// The facts that `quorbit doctor` judges, gathered: the host as it is, and requests of our own sent through its PHPs.
#pragma once

#include "base/config.h"
#include "host/checkup.h"
#include "store/reader.h"

namespace quorbit {

struct DoctorOptions {
	std::vector<std::string> phps; // programs; empty: all of the host that load the agent
	std::string fpm, url;          // a listening FPM, a page of the operator's; "" for none
	std::string proc = "/proc";
};

// Runs each PHP twice and waits up to two seconds for each action. Throws std::runtime_error when a PHP that was named
// is none.
Checkup doctor_facts(const DaemonConfig &config, const DoctorOptions &options);

} // namespace quorbit
