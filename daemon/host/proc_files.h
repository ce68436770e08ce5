// What the files of one process below /proc say (https://man7.org/linux/man-pages/man5/proc.5.html).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quorbit {

// A file of the kernel's, which has no size until it is read; nothing when it cannot be read.
std::optional<std::string> read_proc_file(const std::string &path);

// The target of a link, "" when it cannot be read.
std::string link_target(const std::string &path);

struct ProcStat {
	std::string command; // at most 15 bytes
	int parent = 0;
	int64_t cpu_ticks = 0, started_ticks = 0; // of the process itself; since the host was started
};
std::optional<ProcStat> read_proc_stat(const std::string &folder);

struct ProcStatus {
	uid_t user = 0;            // effective
	std::vector<gid_t> groups; // the effective one first
};
std::optional<ProcStatus> read_proc_status(const std::string &folder);

// The words of its command line.
std::vector<std::string> read_proc_arguments(const std::string &folder);

// The files that it has mapped, once each, as the kernel names them ("... (deleted)"); nothing when this account may
// not know.
std::optional<std::vector<std::string>> read_proc_mapped(const std::string &folder);

// When the host was started, milliseconds since 1970; 0 when it is not told.
int64_t read_proc_boot_ms(const std::string &proc);

} // namespace quorbit
