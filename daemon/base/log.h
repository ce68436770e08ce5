// The daemon's log: one line per message, opened, written and closed for each, so that it can be rotated at any time.
#pragma once

#include <string>
#include <string_view>

namespace quorbit {

enum class LogLevel { off, critical, error, warning, info, verbose, debug };

// The level of a name, ignoring case; off for an empty one, info for an unknown one.
LogLevel log_level_by_name(std::string_view name);

// Sets where and what is logged from now on; before it, nothing is. Not thread-safe: called before threads start.
void log_open(const std::string &path, LogLevel level);

// Appends one line when the configured level is at least `level`. The message is made printable. Any thread may call
// it; a log that cannot be written loses the message. A symbolic link in the log's place is followed only when it
// belongs to root or to us: the folder is open to the web server's group.
void log_message(LogLevel level, std::string_view message);

// Lets through the first few of a kind of message per minute and counts the rest. One thread at a time.
class LogLimit {
public:
	// Logs the message, or counts it; once a minute says how many were counted.
	void message(LogLevel level, std::string_view text);

private:
	static constexpr int most_per_minute = 20;
	long minute_ = 0;
	int count_ = 0;
};

} // namespace quorbit
