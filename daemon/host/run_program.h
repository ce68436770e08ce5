// Running a program of the host for what it prints.
#pragma once

#include <string>
#include <vector>

namespace quorbit {

struct ProgramRun {
	bool ended = false;  // by itself, within the time
	int status = 0;      // its exit status; -1 for a signal
	std::string printed; // standard output and error, 4 MiB at most
};

// Runs the program with these arguments (the first is its path), without standard input, and ends it after `seconds`.
// Throws std::system_error when no process can be had.
ProgramRun run_program(const std::vector<std::string> &arguments, int seconds);

} // namespace quorbit
