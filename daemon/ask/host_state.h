// The state of the host, gathered for whoever tells of it.
#pragma once

#include "base/config.h"
#include "host/findings.h"
#include "store/reader.h"

namespace quorbit {

// Looks at the processes, the folder and the daemon; `store` may be null, when nothing has been stored or may be read.
// `proc` is "/proc", or a tree like it. Where servers that should report have been silent, this waits a third of a
// second to see whether they work.
HostFacts host_state(const DaemonConfig &config, Reader *store, const std::vector<ApplicationRow> &applications,
	const std::string &proc);

} // namespace quorbit
