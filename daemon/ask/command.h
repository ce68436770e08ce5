// The commands of the operator, one source each: its options, its question, its printing.
#pragma once

#include "base/config.h"
#include "store/reader.h"

#include <CLI/CLI.hpp>

#include <functional>

namespace quorbit {

// Runs a command whose options have been read. Prints to standard output and returns the exit status; throws
// std::runtime_error with a message for the operator.
using CommandRun = std::function<int(const DaemonConfig &config)>;

// Each adds its options to `command` and returns what runs it.
CommandRun add_show(CLI::App &command);
CommandRun add_tail(CLI::App &command);
CommandRun add_top(CLI::App &command);
CommandRun add_queries(CLI::App &command);
CommandRun add_errors(CLI::App &command);
CommandRun add_mark(CLI::App &command);
CommandRun add_compare(CLI::App &command);
CommandRun add_status(CLI::App &command);
CommandRun add_profile(CLI::App &command);
CommandRun add_web(CLI::App &command);
CommandRun add_names(CLI::App &command);
CommandRun add_setup(CLI::App &command);
CommandRun add_doctor(CLI::App &command);
CommandRun add_manual(CLI::App &command);

// An example of a command, and what it shows.
struct Example {
	const char *line, *what;
};
// Puts them at the end of the command's help.
void set_examples(CLI::App &command, std::initializer_list<Example> examples);

// What `quorbit status --json` prints, in one line.
std::string status_json(const DaemonConfig &config);

// Throws std::runtime_error, with the names of those that are known, when nothing has come of an application of this
// name; "" stands for all.
void require_application(Reader &store, const std::string &name);

// --host, and what refuses names of which the store has nothing, with those that are known; "" stands for all.
void add_host(CLI::App &command, std::string &host);
void require_host(Reader &store, const std::string &name);

// For options that are times: "" for seconds or a number with its unit, else what is wrong.
std::string check_seconds(const std::string &text);

// For options that are moments: "" for one that parse_moment() reads, else what is wrong. check_duration: for
// durations.
std::string check_moment(const std::string &text);
std::string check_duration(const std::string &text);

// --since and --until, as every command has them.
struct RangeOptions {
	std::string since, until = "now";

	// Until the next minute where it is until now: what comes meanwhile counts.
	TimeRange range(int64_t now_wall_ms) const;
};
void add_range(CLI::App &command, RangeOptions &options, const char *since);

// quorbit show KIND:ID, a key of the sums: "query:17".
bool is_key_id(const std::string &text);
int show_key(Reader &store, const std::string &id, const TimeRange &range, const std::string &host, bool json);

} // namespace quorbit
