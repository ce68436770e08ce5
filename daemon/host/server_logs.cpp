// FPM's lines are those of fpm_children.c and fpm_request.c, Apache's those of mpm_common.c.
#include "host/server_logs.h"

#include "base/clock.h"
#include "base/number.h"
#include "host/fpm_pools.h"
#include "host/proc_files.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace quorbit {

namespace {

bool take(std::string_view &text, std::string_view prefix)
{
	if (!text.starts_with(prefix)) return false;
	text.remove_prefix(prefix.size());
	return true;
}

bool take_number(std::string_view &text, int &number)
{
	auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
	if (failure != std::errc()) return false;
	text.remove_prefix(static_cast<size_t>(end - text.data()));
	return true;
}

// What comes up to this mark, which is taken as well.
bool take_until(std::string_view &text, std::string_view mark, std::string_view &before)
{
	const size_t at = text.find(mark);
	if (at == std::string_view::npos) return false;
	before = text.substr(0, at);
	text.remove_prefix(at + mark.size());
	return true;
}

template <typename Use>
void each_line(std::string_view text, const Use &use)
{
	for (std::string_view line; take_until(text, "\n", line);) use(line);
}

// Of "[22-Nov-2026 19:00:00] WARNING: [pool www] child 7..." what follows the number; with log_level = debug there is
// "pid 6, fpm_children_bury(), line 254: " before the pool.
bool take_fpm_child(std::string_view &line, int &process)
{
	constexpr std::string_view capitals = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
	std::string_view time, level, place, pool;
	if (!take(line, "[") || !take_until(line, "] ", time) || !take_until(line, ": ", level)) return false;
	if (level.find_first_not_of(capitals) != std::string_view::npos) return false;
	if (line.starts_with("pid ") && !take_until(line, ": ", place)) return false;
	return take(line, "[pool ") && take_until(line, "] ", pool) && take(line, "child ") && take_number(line, process);
}

// ", script '/a.php' (request: "GET /a") execution timed out (1.019 sec), terminating": the client's words stand
// before the last parenthesis.
bool says_timeout(std::string_view rest)
{
	constexpr std::string_view words = " execution timed out";
	return rest.starts_with(", script '") && rest.ends_with(" sec), terminating") &&
		rest.substr(0, rest.rfind(" (")).ends_with(words);
}

// " exited on signal 9 (SIGKILL) after 12.345678 seconds from start"
bool take_end(std::string_view rest, LoggedEnd &end)
{
	std::string_view name;
	if (!take(rest, " exited on signal ") || !take_number(rest, end.signal)) return false;
	if (!take_until(rest, " after ", name) || !rest.ends_with(" seconds from start")) return false;
	return parse_number(rest.substr(0, rest.find(' ')), end.lasted_s);
}

// "Sun Nov 22 19:00:00.123456 2026" by local time; 0 for anything else.
int64_t apache_time_ms(std::string_view text)
{
	struct tm time = {};
	const char *rest = strptime(std::string(text.substr(0, text.find('.'))).c_str(), "%a %b %d %H:%M:%S", &time);
	int year = 0;
	if (!rest || !parse_number(text.substr(text.rfind(' ') + 1), year)) return 0;
	time.tm_year = year - 1900;
	time.tm_isdst = -1;
	return int64_t{mktime(&time)} * 1000;
}

// "[...] [core:notice] [pid 6:tid 7] AH00052: child pid 8 exit signal Segmentation fault (11)", which may go on with
// ", possible coredump in /tmp" as AH00051.
bool take_apache_end(std::string_view line, LoggedEnd &end)
{
	std::string_view time, server, name;
	if (!take(line, "[") || !take_until(line, "] ", time) || !take(line, "[core:notice] [pid ")) return false;
	if (!take_until(line, "] ", server)) return false;
	if (!take(line, "AH00051: child pid ") && !take(line, "AH00052: child pid ")) return false;
	if (!take_number(line, end.process) || !take(line, " exit signal ") || !take_until(line, " (", name)) return false;
	end.at_ms = apache_time_ms(time);
	return take_number(line, end.signal) && line.starts_with(')');
}

// The end of a file that is being written; "" for what is no plain file, or cannot be read.
std::string tail_of(const std::string &path)
{
	constexpr off_t most = off_t{512} << 10;
	const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
	struct stat status;
	if (file == -1 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
		if (file != -1) close(file);
		return "";
	}
	const off_t from = std::max<off_t>(status.st_size - most, 0);
	std::string text(static_cast<size_t>(status.st_size - from), '\0');
	const ssize_t length = pread(file, text.data(), text.size(), from);
	close(file);
	text.resize(length > 0 ? static_cast<size_t>(length) : 0);
	return text;
}

// The open file of a process whose path ends like this; "" for none, and where this account may not look.
std::string open_file_like(const std::string &folder, const std::string &end)
{
	std::error_code failed;
	for (const auto &entry : std::filesystem::directory_iterator(folder + "/fd", failed)) {
		if (link_target(entry.path().string()).ends_with("/" + end)) return entry.path().string();
	}
	return "";
}

// Of an FPM master. A path of its `error_log` begins at its own "/"; one that is relative, or the one that FPM was
// built with, is known by how it ends.
std::string fpm_log(const std::string &folder, const std::string &config)
{
	for (const std::string &root : {folder + "/root", std::string()}) {
		const auto pools = settings_of_pools(root, config);
		const auto global = pools.find("global");
		if (global == pools.end()) continue;
		const auto setting = global->second.find("error_log");
		const std::string path = setting == global->second.end() ? "log/php-fpm.log" : setting->second;
		return path.starts_with('/') ? root + path : open_file_like(folder, path);
	}
	return open_file_like(folder, "log/php-fpm.log");
}

bool is_apache(std::string_view command)
{
	return command.starts_with("apache2") || command.starts_with("httpd");
}

// Of the first of Apache's processes, which starts the others; its standard error is the server's ErrorLog.
std::string apache_log(const std::string &proc, const std::string &folder)
{
	const auto stat = read_proc_stat(folder);
	if (!stat || !is_apache(stat->command)) return "";
	const auto parent = read_proc_stat(proc + "/" + std::to_string(stat->parent));
	return parent && is_apache(parent->command) ? "" : folder + "/fd/2";
}

// Numbers of processes in a namespace of its own are others than ours, and what another account writes may be wrong.
bool is_trusted(const std::string &proc, const std::string &folder)
{
	const std::string its = link_target(folder + "/ns/pid");
	const auto status = read_proc_status(folder);
	return status && (status->user == 0 || status->user == geteuid()) &&
		(its.empty() || its == link_target(proc + "/self/ns/pid"));
}

} // namespace

std::vector<LoggedEnd> read_fpm_log(std::string_view text)
{
	std::vector<LoggedEnd> ends;
	std::set<int> timed_out;
	each_line(text, [&](std::string_view line) {
		LoggedEnd end;
		if (!take_fpm_child(line, end.process)) return;
		if (line == " started") timed_out.erase(end.process);
		if (says_timeout(line)) timed_out.insert(end.process);
		if (!take_end(line, end)) return;
		end.timed_out = timed_out.erase(end.process) > 0 && end.signal == SIGTERM;
		ends.push_back(end);
	});
	return ends;
}

std::vector<LoggedEnd> read_apache_log(std::string_view text)
{
	std::vector<LoggedEnd> ends;
	each_line(text, [&ends](std::string_view line) {
		LoggedEnd end;
		if (take_apache_end(line, end)) ends.push_back(end);
	});
	return ends;
}

void ServerLogs::find_logs()
{
	constexpr std::string_view master = "php-fpm: master process (";
	logs_.clear();
	std::error_code failed;
	for (const auto &entry : std::filesystem::directory_iterator(proc_, failed)) {
		const std::string folder = entry.path().string();
		int process = 0;
		if (!parse_number(entry.path().filename().string(), process)) continue;
		const auto words = read_proc_arguments(folder);
		const std::string title = words.empty() ? "" : words[0];
		const bool is_fpm = title.starts_with(master);
		const std::string config = is_fpm ? title.substr(master.size(), title.rfind(')') - master.size()) : "";
		const std::string path = is_fpm ? fpm_log(folder, config) : apache_log(proc_, folder);
		if (!path.empty() && is_trusted(proc_, folder)) logs_.push_back({path, is_fpm});
	}
}

std::vector<LoggedEnd> ServerLogs::ends()
{
	constexpr int64_t find_every_ms = 10000;
	const int64_t now_ms = wall_clock_ms();
	if (!found_ms_ || now_ms - found_ms_ >= find_every_ms || now_ms < found_ms_) {
		found_ms_ = now_ms;
		find_logs();
	}
	std::vector<LoggedEnd> ends;
	for (const Log &log : logs_) {
		const std::string text = tail_of(log.path);
		const auto found = log.is_fpm ? read_fpm_log(text) : read_apache_log(text);
		ends.insert(ends.end(), found.begin(), found.end());
	}
	return ends;
}

} // namespace quorbit
