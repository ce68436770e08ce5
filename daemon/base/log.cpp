// Appending to the daemon's log.
#include "base/log.h"

#include "base/config.h"
#include "base/text.h"
#include "base/clock.h"
#include "base/files.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <strings.h>
#include <unistd.h>

namespace quorbit {

namespace {

std::string log_path;
LogLevel log_level = LogLevel::off;
// Held so that there is one to log with when no other is left.
int reserve = -1;
std::mutex reserve_mutex;

constexpr const char *level_names[] = {"OFF", "CRITICAL", "ERROR", "WARNING", "INFO", "VERBOSE", "DEBUG"};

int open_reserve()
{
	return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

int open_log()
{
	return open_trusted(log_path, O_WRONLY | O_APPEND | O_CREAT, 0640);
}

} // namespace

LogLevel log_level_by_name(std::string_view name)
{
	if (name.empty()) return LogLevel::off; // what php.ini makes of OFF without quotes
	for (int i = 0; i < static_cast<int>(std::size(level_names)); i++) {
		if (strcasecmp(std::string(name).c_str(), level_names[i]) == 0) return static_cast<LogLevel>(i);
	}
	return LogLevel::info;
}

void log_open(const std::string &path, LogLevel level)
{
	log_path = path;
	log_level = level;
	if (reserve == -1) reserve = open_reserve();
}

void log_message(LogLevel level, std::string_view message)
{
	if (level > log_level || level == LogLevel::off) return;
	int64_t now_ms = wall_clock_ms();
	char origin[64];
	snprintf(origin, sizeof origin, ".%03d (pid:%d,uid:%d) %s: ", static_cast<int>(now_ms % 1000), getpid(), getuid(),
		level_names[static_cast<int>(level)]);
	std::string line = local_time(now_ms) + origin + printable(message) + "\n";
	std::unique_lock lock(reserve_mutex, std::defer_lock);
	int file = open_log();
	if (file == -1 && (errno == EMFILE || errno == ENFILE)) {
		lock.lock();
		close(reserve);
		file = open_log();
	}
	if (file != -1) {
		// A lost line is all that a full disk may cost here.
		[[maybe_unused]] ssize_t written = write(file, line.data(), line.size());
		close(file);
	}
	if (lock.owns_lock()) reserve = open_reserve();
}

void LogLimit::message(LogLevel level, std::string_view text)
{
	long minute = time(nullptr) / 60;
	if (minute != minute_) {
		if (count_ > most_per_minute) {
			log_message(
				level, std::to_string(count_ - most_per_minute) + " more messages of this kind within a minute");
		}
		minute_ = minute;
		count_ = 0;
	}
	if (++count_ <= most_per_minute) log_message(level, text);
}

} // namespace quorbit
