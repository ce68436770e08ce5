// The parts of what `quorbit doctor` gathers, each with one thing to look at.
#pragma once

#include "ask/doctor_facts.h"

#include <memory>

namespace quorbit {

// --- doctor_facts.cpp

struct DoctorStore {
	std::unique_ptr<Reader> reader; // null: there is none, or it cannot be read
	std::string trouble, remedy;    // why not
};
DoctorStore open_doctor_store(const DaemonConfig &config);

// --- doctor_phps.cpp

// Every PHP that is asked for, with what a request of our own through it has shown. Throws std::runtime_error when one
// that was named is none.
std::vector<PhpCheckup> check_phps(const DaemonConfig &config, const DoctorOptions &options);
// Files that would load the agent, in the usual places and beside the folders that those PHPs read, but that none of
// them reads.
std::vector<std::string> stray_ini_files(const std::vector<PhpCheckup> &phps);

// --- doctor_host.cpp

std::vector<DaemonProcess> daemons_on_host(const std::string &proc);
// What the accounts of PHPs that should reach the daemon are refused; nothing unless root asks.
std::vector<AccountRefusal> account_refusals(const HostFacts &host, const DaemonConfig &config);
int64_t free_bytes_in(const std::string &folder); // INT64_MAX when it cannot be told
// The last bytes of a log of the host's, at most so many; "" when there is none, or not for this account.
std::string end_of_log(const std::string &path, size_t most);
// Lines about our files in which the kernel says that a policy refused something: the newest of each log.
std::vector<std::string> policy_denials(const std::string &folder);
// By pool of each FPM that runs with the agent.
std::map<std::string, std::string> terminate_timeouts(const HostFacts &host);

} // namespace quorbit
