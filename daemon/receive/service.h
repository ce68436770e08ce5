// The service manager, where one looks after the daemon.
#pragma once

#include "base/config.h"

#include <string>

namespace quorbit {

// Tells the manager that started this process how it is, by the datagrams of sd_notify(3).
class ServiceManager {
public:
	// The one that $NOTIFY_SOCKET names; none without it. What this process starts does not inherit the name.
	ServiceManager();

	bool is_there() const { return !address_.empty(); }
	// Such as "READY=1". Does nothing without a manager; one that does not listen is not waited for.
	void tell(const std::string &state) const;

private:
	std::string address_; // of a UNIX socket, as the kernel has it: it may begin with NUL
};

// Whether systemd runs this host and is to start the daemon of this folder at boot: then nobody else starts one, not
// even while that is stopped. `system_root` is in front of systemd's own paths, for tests.
bool is_left_to_service(const DaemonConfig &config, const std::string &system_root = "");

} // namespace quorbit
