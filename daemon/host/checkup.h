// What `quorbit doctor` looks at beyond the state of the host, and what is amiss with it: facts in, findings out.
#pragma once

#include "host/findings.h"
#include "host/php_binaries.h"
#include "host/probe.h"

namespace quorbit {

// One PHP, and the request that was sent through it.
struct PhpCheckup {
	std::string title;                // "/usr/bin/php", "FPM on /run/php.sock"
	PhpBinary php;                    // of a program; else its path is ""
	bool named = false;               // by the operator
	std::vector<std::string> loading; // its ini files that load the agent
	std::string complaint;            // what it says about the agent when it starts; "" for nothing
	bool xdebug_as_extension = false;
	bool probed = false;
	ProbeAnswer probe;
	bool arrived = false;   // an action of the probe
	std::string agent_said; // the last line that the agent logged meanwhile, of level WARNING and above
};

// A process that serves as a daemon.
struct DaemonProcess {
	int id = 0;
	std::string config; // the file that it was started with
};

struct AccountRefusal {
	std::string account, what; // "connect to /var/log/quorbit/.quorbit.sock: Permission denied"
};

struct Checkup {
	HostFacts host;
	std::string product_version;
	std::string runtime_root; // that our daemon and commands go by
	std::vector<PhpCheckup> phps;
	std::vector<std::string> strays; // ini files that load the agent and that no PHP here reads
	std::vector<DaemonProcess> daemons;
	std::vector<AccountRefusal> refusals; // what accounts of PHP were refused, tried as them
	std::string store_trouble;            // why the store cannot be read; "" when it can, or is not there yet
	std::string store_remedy;             // what is known to mend that, else ""
	int64_t future_ms = 0;                // stamp of an action that is some seconds ahead of now, 0 for none
	int64_t free_bytes = INT64_MAX;       // of the folder's file system
	std::vector<std::string> conf_problems;
	std::vector<std::string> unused_sections;              // of applications.conf, which no agent has asked for
	std::map<std::string, std::string> terminate_timeouts; // by FPM pool: request_terminate_timeout
	std::vector<std::string> denials;                      // lines of the kernel's log
	// Settings given to the probe's application that keep requests out: "zqs.urls_captured", "zqs.agent_enabled".
	std::map<std::string, std::string> given;
	int memory_used_percent = 0,
		memory_safe_percent = 0; // of the host; from where on agents leave requests alone, 0 for never
};

// In the order in which things fail, those of the host's state among them; empty when all is well.
std::vector<Finding> checkup_findings(const Checkup &checkup);

// Whether requests have come through: each PHP that was probed reported.
bool reports_arrive(const Checkup &checkup);

} // namespace quorbit
