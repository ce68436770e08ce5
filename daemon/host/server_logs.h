// What servers write into their error logs of children that a signal has ended: FPM into its `error_log`, Apache into
// its `ErrorLog`.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// A child that was ended by a signal.
struct LoggedEnd {
	int process = 0, signal = 0;
	bool timed_out = false; // FPM sent the signal: a request took longer than request_terminate_timeout
	double lasted_s = -1;   // from the start of the process, which FPM tells; else -1
	int64_t at_ms = 0;      // when, by the wall clock, which Apache tells in local time; else 0
};

// The ends in a part of a log, in their order. Lines that are no server's own are passed over, whatever they contain: a
// server writes texts of its scripts and clients there as well.
std::vector<LoggedEnd> read_fpm_log(std::string_view text);
std::vector<LoggedEnd> read_apache_log(std::string_view text);

// The logs of the servers that run on this host as root or as this account.
class ServerLogs {
public:
	// `proc` is "/proc", or a tree like it.
	explicit ServerLogs(std::string proc = "/proc") : proc_(std::move(proc)) {}

	// The newest ends, as far as this account may read them: of the last 512 KiB of each log. Looks for the servers
	// at most every ten seconds, which takes some milliseconds for a thousand processes.
	std::vector<LoggedEnd> ends();

private:
	struct Log {
		std::string path;
		bool is_fpm = false;
	};
	void find_logs();

	const std::string proc_;
	std::vector<Log> logs_;
	int64_t found_ms_ = 0; // when they were looked for; 0: never
};

} // namespace quorbit
