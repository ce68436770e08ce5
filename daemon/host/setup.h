// Switching the agent on and off in the PHPs of a host.
#pragma once

#include "host/php_binaries.h"

namespace quorbit {

struct SetupOptions {
	std::string prefix;                     // below which quorbit and, from a package, the extension are installed
	std::string runtime_root;               // zqs.runtime_root
	std::optional<std::string> application; // zqs.app_name; nothing to leave it as it is
	bool dry_run = false;                   // says what it would do
};

enum class SetupOutcome { changed, unchanged, refused };

struct SetupResult {
	std::string php;  // its path
	std::string file; // the ini file concerned, "" for none
	SetupOutcome outcome = SetupOutcome::unchanged;
	std::string said; // what was done, or why not and what to do, as a phrase
};

// Writes "quorbit.ini" into the folder that this PHP scans, if that very PHP loads the extension, and takes it back if
// a PHP that reads this folder then does not. `all` are the PHPs of the host. An Apache module cannot be tried; it goes
// by its build id. What another file has switched on, and what stands in the file already, stays.
SetupResult enable_agent(const PhpBinary &php, const std::vector<PhpBinary> &all, const SetupOptions &options);

// Removes that file. One that holds settings of somebody else's is kept beside it, as "quorbit.ini.off", which
// enable_agent() takes up again.
SetupResult disable_agent(const PhpBinary &php, const SetupOptions &options);

// The command that makes this server process read its ini files again.
std::string restart_command(const PhpBinary &php, int process);

} // namespace quorbit
