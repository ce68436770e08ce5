// Both kinds of cgroups: memory.events.local of version 2, memory.oom_control of version 1 (since Linux 4.13).
#include "host/oom_kills.h"

#include "host/proc_files.h"

#include <charconv>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace quorbit {

namespace {

constexpr int64_t kept_s = 10; // what was killed is gone from /proc that soon

int64_t monotonic_s()
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return now.tv_sec;
}

// Of a process that lives, the file in which its cgroup counts; "" for none.
std::string counter_file(const std::string &cgroups, const std::string &memberships)
{
	std::istringstream lines(memberships);
	// "4:memory:/path" of version 1, "0::/path" of version 2; on a host that has both, memory is either's.
	std::string unified;
	for (std::string line; std::getline(lines, line);) {
		const size_t first = line.find(':'), second = line.find(':', first + 1);
		if (second == std::string::npos) continue;
		const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
		const std::string path = line.substr(second + 1);
		std::string file = cgroups;
		if (controllers.find(",memory,") != std::string::npos)
			return file.append("/memory").append(path).append("/memory.oom_control");
		if (controllers == ",,") unified = file.append(path).append("/memory.events.local");
	}
	return unified;
}

// "oom_kill 3" among the lines of the file; -1 when there is none.
int64_t kills_in(const std::string &file)
{
	std::istringstream lines(read_proc_file(file).value_or(""));
	std::string key;
	for (int64_t value = 0; lines >> key >> value;) {
		if (key == "oom_kill") return value;
	}
	return -1;
}

} // namespace

std::optional<int> oom_killed_in(const std::string &record)
{
	// "4,1234,53771258703,-;Memory cgroup out of memory: Killed process 4711 (php-fpm) total-vm:...": the first number
	// is the kernel's own as long as it is a level alone.
	std::string_view text = record;
	int level = 0;
	auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), level);
	if (failure != std::errc() || end == text.data() + text.size() || *end != ',' || level > 7) return std::nullopt;
	const size_t begin = text.find(';');
	if (begin == std::string_view::npos) return std::nullopt;
	text.remove_prefix(begin + 1);
	for (std::string_view words : {"Memory cgroup out of memory: ", "Out of memory: "}) {
		if (text.starts_with(words)) text.remove_prefix(words.size());
	}
	constexpr std::string_view killed = "Killed process ";
	int process = 0;
	if (!text.starts_with(killed)) return std::nullopt;
	text.remove_prefix(killed.size());
	if (std::from_chars(text.data(), text.data() + text.size(), process).ec != std::errc()) return std::nullopt;
	return process;
}

OomKills::OomKills(const std::string &proc, std::string cgroups, const std::string &kernel_log)
	: proc_(proc), cgroups_(std::move(cgroups))
{
	constexpr const char *first_namespace = "pid:[4026531836]"; // PROC_PID_INIT_INO of linux/proc_ns.h
	if (link_target(proc + "/self/ns/pid") != first_namespace) return;
	log_ = open(kernel_log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
	if (log_ != -1) lseek(log_, 0, SEEK_END);
}

OomKills::~OomKills()
{
	if (log_ != -1) close(log_);
}

void OomKills::look(const std::set<int> &processes)
{
	if (log_ != -1) return read_log();
	std::map<int, std::string> still;
	for (int process : processes) {
		const auto known = counter_of_.find(process);
		still[process] = known != counter_of_.end()
			? known->second
			: counter_file(cgroups_, read_proc_file(proc_ + "/" + std::to_string(process) + "/cgroup").value_or(""));
	}
	counter_of_ = std::move(still);
	read_counters();
}

void OomKills::read_log()
{
	constexpr int most_records = 10000; // the rest is read at the next look
	char record[8192];
	const int64_t now_s = monotonic_s();
	std::erase_if(logged_, [now_s](const auto &kill) { return now_s - kill.second > kept_s; });
	for (int i = 0; i < most_records; i++) {
		const ssize_t length = ::read(log_, record, sizeof record);
		if (length == -1 && errno == EPIPE) continue; // some were overwritten: the next one comes
		if (length <= 0) return;
		if (auto process = oom_killed_in({record, static_cast<size_t>(length)})) logged_[*process] = now_s;
	}
}

void OomKills::read_counters()
{
	const int64_t now_s = monotonic_s();
	std::map<std::string, Counter> now;
	for (const auto &[process, file] : counter_of_) {
		if (file.empty() || now.contains(file)) continue;
		Counter &counter = now[file] = counters_[file];
		const int64_t value = kills_in(file);
		if (now_s - counter.rose_s > kept_s) counter.unclaimed = 0;
		if (counter.value >= 0 && value > counter.value) {
			counter.unclaimed += value - counter.value;
			counter.rose_s = now_s;
		}
		counter.value = value;
	}
	counters_ = std::move(now);
}

std::set<int> OomKills::killed_among(const std::set<int> &ended)
{
	std::set<int> killed;
	std::map<std::string, std::set<int>> by_counter; // none where the log is read
	for (int process : ended) {
		if (logged_.contains(process)) killed.insert(process);
		const auto counter = counter_of_.find(process);
		if (counter != counter_of_.end() && !counter->second.empty()) by_counter[counter->second].insert(process);
	}
	for (const auto &[file, of_it] : by_counter) {
		int64_t &unclaimed = counters_[file].unclaimed;
		if (unclaimed < static_cast<int64_t>(of_it.size())) continue;
		unclaimed -= static_cast<int64_t>(of_it.size());
		killed.insert(of_it.begin(), of_it.end());
	}
	return killed;
}

} // namespace quorbit
