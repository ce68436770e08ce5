// Reading php-fpm.conf and what it includes.
#include "host/fpm_pools.h"

#include "host/proc_files.h"

#include <glob.h>
#include <regex>
#include <sstream>

namespace quorbit {

namespace {

using Pools = std::map<std::string, std::map<std::string, std::string>>;

void read_pools(const std::string &root, const std::string &pattern, int depth, std::string &section, Pools &pools);

void read_line(const std::string &root, const std::string &line, int depth, std::string &section, Pools &pools)
{
	static const std::regex pool(R"re(\$pool)re");
	static const std::regex header(R"re(\s*\[([^\]]+)\]\s*)re");
	static const std::regex setting(
		R"re(\s*(?:php_(?:admin_)?(?:value|flag)\[(zqs\.[\w.]+)\]|(request_terminate_timeout|listen|error_log))\s*=\s*"?([^";]*?)"?\s*(?:;.*)?)re");
	static const std::regex include(R"re(\s*include\s*=\s*"?([^";]*?)"?\s*(?:;.*)?)re");
	std::smatch found;
	if (std::regex_match(line, found, header))
		section = found[1];
	else if (std::regex_match(line, found, setting))
		pools[section][found[1].matched ? found[1] : found[2]] = std::regex_replace(found[3].str(), pool, section);
	else if (std::regex_match(line, found, include))
		read_pools(root, found[1], depth + 1, section, pools);
}

void read_pools(const std::string &root, const std::string &pattern, int depth, std::string &section, Pools &pools)
{
	constexpr int most_depth = 5;
	constexpr size_t longest_line = 4096; // the expressions recurse
	if (depth > most_depth) return;
	glob_t files = {};
	if (glob((root + pattern).c_str(), 0, nullptr, &files) == 0) {
		for (size_t i = 0; i < files.gl_pathc; i++) {
			std::istringstream lines(read_proc_file(files.gl_pathv[i]).value_or(""));
			for (std::string line; std::getline(lines, line);) {
				if (line.size() < longest_line) read_line(root, line, depth, section, pools);
			}
		}
	}
	globfree(&files);
}

} // namespace

Pools settings_of_pools(const std::string &root, const std::string &file)
{
	Pools pools;
	std::string section;
	read_pools(root, file, 0, section, pools);
	return pools;
}

} // namespace quorbit
