// A thread profile in the formats of tools that show profiles. Times are milliseconds, as the agent sends them.
#pragma once

#include "facts/profile_calls.h"

#include <functional>
#include <string>

namespace quorbit {

using Put = std::function<void(const std::string &text)>;

// One line per path: "main;Cart::total 12", the time without that of further calls; what flamegraph.pl and others fold
// stacks into (https://github.com/brendangregg/FlameGraph). Paths without time of their own are left out.
void put_folded(const CallTree &tree, const std::vector<std::string> &names, const Put &put);

// Callgrind's format, version 1 (https://valgrind.org/docs/manual/cl-format.html): own time of each function, and
// calls and time of each pair of caller and callee.
std::string callgrind_text(const CallTree &tree, const std::vector<std::string> &names, const std::string &application);

// Speedscope's file format (https://www.speedscope.app/file-format-schema.json), an "evented" profile per thread.
// Written while the steps come; the names are only complete after them, where JSON lets them stand as well.
class SpeedscopeWriter {
public:
	explicit SpeedscopeWriter(std::string application) : application_(std::move(application)) {}
	// What is to be written for the step.
	std::string add(const ProfileStep &step);
	std::string finish(const std::vector<std::string> &names);

private:
	std::string end_profile();

	std::string application_;
	int64_t steps_ = 0, thread_ = 0, begin_ms_ = 0, last_ms_ = 0;
};

} // namespace quorbit
