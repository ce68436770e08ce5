// Sampling from /proc (https://man7.org/linux/man-pages/man5/proc.5.html).
#include "host/host_sample.h"

#include "base/number.h"
#include "host/fpm_pools.h"
#include "host/listen_queue.h"
#include "host/proc_files.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/syscall.h>
#include <unistd.h>

namespace quorbit {

namespace {

int64_t kilobytes_of(const std::string &text, std::string_view key)
{
	const size_t at = text.find(key);
	return at == std::string::npos ? 0 : strtoll(text.c_str() + at + key.size(), nullptr, 10) << 10;
}

bool is_server(std::string_view command)
{
	return command.starts_with("php") || command.starts_with("apache2") || command.starts_with("httpd");
}

constexpr std::string_view master = "php-fpm: master process (";

// "www" of the title "php-fpm: pool www"; "" of what only manages; else the program.
std::string pool_of(const std::string &title, const ProcStat &stat, const std::string &proc)
{
	if (title.starts_with(master)) return {};
	constexpr std::string_view pool = "php-fpm: pool ";
	if (title.starts_with(pool)) return title.substr(pool.size(), title.find_last_not_of(' ') + 1 - pool.size());
	if (stat.command.starts_with("php")) return stat.command;
	// The first of a server's processes starts the others.
	const auto parent = read_proc_stat(proc + "/" + std::to_string(stat.parent));
	return parent && parent->command == stat.command ? stat.command : std::string();
}

// Whether a process is root's or this account's: the title of any other may name files to keep the daemon busy with.
bool is_trusted(const std::string &folder)
{
	const auto status = read_proc_status(folder);
	return status && (status->user == 0 || status->user == geteuid());
}

} // namespace

HostSample HostSampler::take()
{
	HostSample sample;
	sample.load = strtod(read_proc_file(proc_ + "/loadavg").value_or("0").c_str(), nullptr);
	const std::string memory = read_proc_file(proc_ + "/meminfo").value_or("");
	sample.memory_bytes = kilobytes_of(memory, "MemTotal:");
	sample.available_bytes = kilobytes_of(memory, "MemAvailable:");
	seen_.clear();
	std::error_code none;
	for (const auto &entry : std::filesystem::directory_iterator(proc_, none)) {
		const std::string name = entry.path().filename().string();
		int process = 0;
		if (!parse_number(name, process)) continue;
		const std::string folder = entry.path().string();
		const auto stat = read_proc_stat(folder);
		if (!stat || !is_server(stat->command)) continue;
		const auto words = read_proc_arguments(folder);
		const std::string title = words.empty() ? "" : words[0];
		if (title.starts_with(master) && is_trusted(folder)) add_waiting(process, title, sample);
		const std::string pool = pool_of(title, *stat, proc_);
		if (pool.empty()) continue;
		PoolSample &counts = sample.pools[pool];
		(is_busy(folder, process, stat->cpu_ticks) ? counts.busy : counts.idle)++;
	}
	std::erase_if(masters_, [this](const auto &of) { return !read_proc_stat(proc_ + "/" + std::to_string(of.first)); });
	ticks_.swap(seen_);
	return sample;
}

void HostSampler::add_waiting(int process, const std::string &title, HostSample &sample)
{
	constexpr int most_looks = 6;
	const std::string folder = proc_ + "/" + std::to_string(process);
	Listening &listening = masters_[process];
	if (listening.looks == 0 || listening.looks == most_looks) {
		const std::string config = title.substr(master.size(), title.rfind(')') - master.size());
		listening = {};
		for (const auto &[pool, settings] : settings_of_pools(folder + "/root", config)) {
			const auto listen = settings.find("listen");
			if (listen != settings.end()) listening.pools[pool] = listen->second;
		}
	}
	listening.looks++;
	for (const auto &[pool, listen] : listening.pools) {
		if (auto waiting = connections_waiting(folder + "/net", listen)) sample.pools[pool].waiting += *waiting;
	}
}

bool HostSampler::is_busy(const std::string &folder, int process, int64_t cpu_ticks)
{
	seen_[process] = cpu_ticks;
	const std::string call = read_proc_file(folder + "/syscall").value_or("");
	if (!call.empty()) {
		if (call.starts_with("running")) return true;
		const long number = strtol(call.c_str(), nullptr, 10);
		return number != SYS_accept && number != SYS_accept4;
	}
	auto before = ticks_.find(process);
	return before != ticks_.end() && before->second != cpu_ticks;
}

} // namespace quorbit
