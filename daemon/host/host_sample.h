// What the host does at a moment: load, memory, and how many PHP processes of each pool work.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace quorbit {

struct PoolSample {
	int64_t busy = 0, idle = 0; // processes
	int64_t waiting = 0;        // connections that no process of FPM has accepted yet, as far as that can be seen
};

struct HostSample {
	double load = 0; // of one minute
	int64_t memory_bytes = 0, available_bytes = 0;
	std::map<std::string, PoolSample> pools; // of FPM by its name; "apache2", "php" and the like by the program
};

// Looks now and then; some milliseconds for a thousand processes.
class HostSampler {
public:
	// `proc` is "/proc", or a tree like it.
	explicit HostSampler(std::string proc = "/proc") : proc_(std::move(proc)) {}

	// A worker is idle while it waits for a connection; where this account may not know what it waits for, while it has
	// used no processor time since the last look. Processes that only manage others do not count.
	HostSample take();

private:
	// Where the pools of an FPM listen; read anew after a minute, when it may have been reloaded.
	struct Listening {
		int looks = 0;
		std::map<std::string, std::string> pools;
	};
	void add_waiting(int process, const std::string &title, HostSample &sample);
	bool is_busy(const std::string &folder, int process, int64_t cpu_ticks);

	const std::string proc_;
	std::map<int, int64_t> ticks_, seen_; // by process: at the last look, at this one
	std::map<int, Listening> masters_;    // of FPM, by process
};

} // namespace quorbit
