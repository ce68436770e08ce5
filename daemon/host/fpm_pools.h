// What an FPM's configuration says that concerns the agent, pool by pool.
#pragma once

#include <map>
#include <string>

namespace quorbit {

// By pool, then by setting: the lines php_value[zqs.x], php_admin_value[zqs.x] and their flags, listen,
// request_terminate_timeout, and of "global" error_log. "$pool" in a value is the pool's name. Files that it includes
// are read as well, as far as they can be. Paths are looked up below `root`, the folder that FPM has as "/".
std::map<std::string, std::map<std::string, std::string>> settings_of_pools(
	const std::string &root, const std::string &file);

} // namespace quorbit
