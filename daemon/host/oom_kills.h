// Processes that the kernel has killed for lack of memory: its own log names each; where that may not be read, a cgroup
// at least counts its own.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace quorbit {

// The process of a line of /dev/kmsg (https://www.kernel.org/doc/Documentation/ABI/testing/dev-kmsg) that says that it
// was killed for lack of memory; nothing for any other line, and for what a program wrote there.
std::optional<int> oom_killed_in(const std::string &record);

// One thread at a time.
class OomKills {
public:
	// Kills from now on. `proc`, `cgroups` and `kernel_log` are "/proc", "/sys/fs/cgroup" and "/dev/kmsg", or the like
	// of them. The log is used only where its numbers of processes are ours.
	explicit OomKills(const std::string &proc = "/proc", std::string cgroups = "/sys/fs/cgroup",
		const std::string &kernel_log = "/dev/kmsg");
	~OomKills();
	OomKills(const OomKills &) = delete;
	OomKills &operator=(const OomKills &) = delete;

	// Takes what has come since the last look. `processes` are all those that may be asked for later; a process's
	// cgroup is found while it lives, and kept as long as it is among these.
	void look(const std::set<int> &processes);

	// Which of these, that were all found ended by the last look, were killed for lack of memory. By counters it is
	// told only when a cgroup has counted as many kills in the last seconds as there are of it; these count once.
	std::set<int> killed_among(const std::set<int> &ended);

private:
	struct Counter {
		int64_t value = -1; // as the cgroup has it; -1: not readable
		int64_t unclaimed = 0;
		int64_t rose_s = 0; // when it did last
	};
	void read_log();
	void read_counters();

	const std::string proc_, cgroups_;
	int log_ = -1;
	std::map<int, int64_t> logged_;         // when, by process
	std::map<int, std::string> counter_of_; // by process: the file that counts; "" for none
	std::map<std::string, Counter> counters_;
};

} // namespace quorbit
