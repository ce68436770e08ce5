// The PHPs that a host has, and what each says of itself.
#pragma once

#include "host/processes.h"

#include <optional>
#include <string>
#include <vector>

namespace quorbit {

// The build id that the extension is made for: of a thread-safe PHP 5.6 without debug.
constexpr const char *wanted_build = "API20131226,TS";

struct PhpBinary {
	std::string path; // of the program, or of Apache's module; no link
	PhpServer server = PhpServer::cli;
	std::string version, build;   // "5.6.15", "API20131226,TS"; "" when it does not tell
	std::string ini_file;         // php.ini: the one that it reads, or where it would be
	std::string scan_folder;      // for further ini files; "" for none
	std::string extension_folder; // extension_dir
	bool enabled = false;         // loads the agent; for Apache's module: an ini file says so
	std::string enabled_by;       // the ini file that says so, as far as it can be found
	std::string trouble;          // why the agent cannot be switched on; "" when it can
	std::vector<int> running;     // server processes to restart, those that manage others

	bool is_program() const { return server != PhpServer::apache; }
};

// Those on PATH, in usual places, and those that run; each file once, in the order of their paths. Programs are asked
// by running them with -i, so that one which another account could have put there is named and not run.
std::vector<PhpBinary> php_binaries();

// The one at this path, whoever owns it. Throws std::runtime_error when it is not PHP.
PhpBinary php_binary(const std::string &path);

// Paths that match a shell pattern, sorted; none when nothing does or the folder cannot be read.
std::vector<std::string> matching(const std::string &pattern);

// What this PHP prints about itself (-i) as lines "name => value", with these settings beside its own. The agent in it,
// if any, finds no daemon and starts none.
std::string php_info(const PhpBinary &php, const std::vector<std::string> &settings = {});

// The value of a line of php_info() or ""; that of this script for one with several.
std::string info_value(const std::string &info, const std::string &name);

// Whether the agent is loaded by what php_info() says.
bool has_agent(const std::string &info);

// The ini files that this PHP reads and that load the agent, php.ini first.
std::vector<std::string> loading_ini_files(const PhpBinary &php);

} // namespace quorbit
