// Finding the PHPs of a host, and asking them.
#include "host/php_binaries.h"

#include "base/files.h"
#include "host/proc_files.h"
#include "host/run_program.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <glob.h>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr int answer_seconds = 20;

// Where distributions, hosting panels and builds from source put PHP.
constexpr const char *usual_folders[] = {
	"/usr/bin",
	"/usr/sbin",
	"/usr/local/bin",
	"/usr/local/sbin",
	"/usr/local/php*/bin",
	"/usr/local/php*/sbin",
	"/opt/*/bin",
	"/opt/*/sbin",
	"/opt/*/php/*/bin",
	"/opt/*/php/*/sbin",
	"/opt/*/*php*/*/usr/bin",
	"/opt/*/*php*/*/usr/sbin",
};
constexpr const char *usual_modules[] = {
	"/usr/lib/apache2/modules/libphp*.so",
	"/usr/lib/httpd/modules/libphp*.so",
	"/usr/lib64/httpd/modules/libphp*.so",
	"/usr/local/apache2/modules/libphp*.so",
};

// "php", "php5.6", "php-fpm5.6", "php5-cgi" and the like.
bool is_php_name(const std::string &name)
{
	static const std::regex pattern("php[0-9.]*-?(cgi|fpm)?-?[0-9.]*");
	return std::regex_match(name, pattern);
}

PhpServer server_by_name(const std::string &name)
{
	if (name.starts_with("libphp")) return PhpServer::apache;
	if (name.find("fpm") != std::string::npos) return PhpServer::fpm;
	return name.find("cgi") != std::string::npos ? PhpServer::cgi : PhpServer::cli;
}

// Whether nobody but root and this account can have made the file or put it in its place.
bool is_safe_to_run(std::filesystem::path path)
{
	for (;; path = path.parent_path()) {
		struct stat status;
		if (stat(path.c_str(), &status) != 0 || !is_of_root_or_us(status)) return false;
		const bool shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
		if (shared && !(S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX))) return false;
		if (path == path.root_path()) return true;
	}
}

// phpinfo() as HTML, which php-cgi prints, brought to the form of the others.
std::string as_text(const std::string &info)
{
	constexpr std::string_view value = "<td class=\"v\">";
	if (info.find("<html") == std::string::npos) return info;
	std::string text;
	for (size_t at = 0; at < info.size();) {
		const size_t tag = std::min(info.find('<', at), info.size());
		text.append(info, at, tag - at);
		at = std::min(info.find('>', tag), info.size() - 1) + 1;
		if (info.compare(tag, value.size(), value) == 0) text += " => ";
	}
	return text;
}

// Whether this text of an ini file has a line that loads the agent.
bool loads_agent(const std::string &text)
{
	for (size_t at = 0; at < text.size();) {
		const size_t end = std::min(text.find('\n', at), text.size());
		std::string line = text.substr(at, end - at);
		line.erase(0, line.find_first_not_of(" \t"));
		line.erase(std::min(line.find(';'), line.size()));
		const size_t module = line.find("zqprof.so");
		if (line.starts_with("extension") && module != std::string::npos && line.find('=') < module) return true;
		at = end + 1;
	}
	return false;
}

void read_program(PhpBinary &php)
{
	const std::string info = php_info(php);
	php.version = info_value(info, "PHP Version");
	php.build = info_value(info, "PHP Extension Build");
	if (php.version.empty()) throw std::runtime_error(php.path + " does not answer as PHP does");
	php.ini_file = info_value(info, "Loaded Configuration File");
	if (php.ini_file.empty()) php.ini_file = info_value(info, "Configuration File (php.ini) Path") + "/php.ini";
	php.scan_folder = info_value(info, "Scan this dir for additional .ini files");
	php.scan_folder.erase(0, php.scan_folder.rfind(':') + 1);
	php.extension_folder = info_value(info, "extension_dir");
	php.enabled = has_agent(info);
}

// What follows these words in a file that is not text, up to one of `ends`.
std::string text_after(const std::string &file, const std::string &words, const char *ends)
{
	const size_t at = file.find(words);
	if (at == std::string::npos) return "";
	const size_t begin = at + words.size();
	return file.substr(begin, file.find_first_of(std::string(ends) + '\0', begin) - begin);
}

// Apache's module cannot be run; but the texts of phpinfo() and of its header are in it.
void read_module(PhpBinary &php)
{
	const std::string file = read_file(php.path);
	const std::string prefix = text_after(file, "'--prefix=", "'");
	php.version = text_after(file, "X-Powered-By: PHP/", "\r\n");
	const size_t build = file.find("API20");
	if (build != std::string::npos) php.build = file.substr(build, file.find('\0', build) - build);
	php.ini_file = text_after(file, "'--with-config-file-path=", "'");
	php.ini_file = (php.ini_file.empty() ? prefix + "/lib" : php.ini_file) + "/php.ini";
	php.scan_folder = text_after(file, "'--with-config-file-scan-dir=", "'");
}

PhpBinary read_binary(const std::string &path, bool run)
{
	PhpBinary php;
	php.path = path;
	php.server = server_by_name(std::filesystem::path(path).filename());
	if (php.is_program() && !run) {
		php.trouble = "other accounts can change it, so it was not run: name it to have it run";
		return php;
	}
	if (php.is_program())
		read_program(php);
	else
		read_module(php);
	auto loading = loading_ini_files(php);
	if (!php.is_program()) php.enabled = !loading.empty();
	if (php.enabled && !loading.empty()) php.enabled_by = loading.front();
	if (php.build != wanted_build)
		php.trouble = std::string("the agent needs a thread-safe PHP 5.6, with the build id ") + wanted_build;
	return php;
}

// Where the running ones are, and the processes to restart, of those that see the same files as we do.
std::map<std::string, std::vector<int>> running_binaries()
{
	std::map<std::string, std::vector<int>> found;
	const std::string own_root = link_target("/proc/self/root");
	for (const PhpProcess &process : php_processes("/proc")) {
		const std::string folder = "/proc/" + std::to_string(process.id);
		if (link_target(folder + "/root") != own_root ||
			link_target(folder + "/ns/mnt") != link_target("/proc/self/ns/mnt"))
			continue;
		std::string path = process.executable;
		if (process.server == PhpServer::apache) {
			for (const std::string &mapped : read_proc_mapped(folder).value_or(std::vector<std::string>())) {
				if (std::filesystem::path(mapped).filename().string().starts_with("libphp")) path = mapped;
			}
		}
		const std::string name = std::filesystem::path(path).filename();
		if (!is_php_name(name) && !name.starts_with("libphp")) continue;
		auto &processes = found[path];
		const bool serves = process.server != PhpServer::cli && process.server != PhpServer::other;
		if (serves && (process.manages || process.server == PhpServer::built_in)) processes.push_back(process.id);
	}
	return found;
}

std::set<std::string> candidates()
{
	std::vector<std::string> folders(std::begin(usual_folders), std::end(usual_folders));
	const char *path = getenv("PATH");
	for (std::string rest = path ? path : ""; !rest.empty();) {
		const size_t end = std::min(rest.find(':'), rest.size());
		if (rest[0] == '/') folders.push_back(rest.substr(0, end));
		rest.erase(0, end + 1);
	}
	std::set<std::string> files;
	std::error_code failed;
	for (const std::string &folder : folders) {
		for (const std::string &file : matching(folder + "/php*")) {
			if (!is_php_name(std::filesystem::path(file).filename()) || access(file.c_str(), X_OK) != 0) continue;
			const auto real = std::filesystem::canonical(file, failed);
			if (!failed && std::filesystem::is_regular_file(real)) files.insert(real);
		}
	}
	for (const char *pattern : usual_modules) {
		for (const std::string &file : matching(pattern)) files.insert(file);
	}
	return files;
}

} // namespace

std::vector<PhpBinary> php_binaries()
{
	auto running = running_binaries();
	auto files = candidates();
	for (const auto &[path, processes] : running) files.insert(path);
	std::vector<PhpBinary> found;
	for (const std::string &file : files) {
		try {
			found.push_back(read_binary(file, is_safe_to_run(file)));
			found.back().running = running[file];
		} catch (const std::exception &) {
			continue; // gone, or something else of that name
		}
	}
	return found;
}

std::vector<std::string> matching(const std::string &pattern)
{
	glob_t found = {};
	std::vector<std::string> paths;
	if (glob(pattern.c_str(), 0, nullptr, &found) == 0) paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
	globfree(&found);
	return paths;
}

PhpBinary php_binary(const std::string &path)
{
	std::error_code failed;
	const auto real = std::filesystem::canonical(path, failed);
	if (failed) throw std::runtime_error(path + ": " + failed.message());
	PhpBinary php = read_binary(real, true);
	php.running = running_binaries()[real];
	return php;
}

std::string php_info(const PhpBinary &php, const std::vector<std::string> &settings)
{
	std::vector<std::string> words = {php.path};
	const std::vector<std::string> quiet = {"zqs.prefix=/dev/null", "zqs.runtime_root=/dev/null", "display_errors=1",
		"display_startup_errors=1", "html_errors=0", "log_errors=0"};
	for (const auto *list : {&quiet, &settings}) {
		for (const std::string &setting : *list) words.insert(words.end(), {"-d", setting});
	}
	words.push_back("-i");
	ProgramRun run = run_program(words, answer_seconds);
	if (!run.ended) throw std::runtime_error(php.path + " -i does not end");
	return as_text(run.printed);
}

std::string info_value(const std::string &info, const std::string &name)
{
	size_t at = info.starts_with(name) ? 0 : info.find("\n" + name);
	for (; at != std::string::npos; at = info.find("\n" + name, at + 1)) {
		const size_t begin = info.find_first_not_of(" \n", at) + name.size();
		std::string rest = info.substr(begin, info.find('\n', begin) - begin);
		const size_t arrow = rest.find_first_not_of(' ');
		if (arrow == std::string::npos || rest.compare(arrow, 2, "=>") != 0) continue;
		std::string value = rest.substr(arrow + 2, rest.find("=>", arrow + 2) - arrow - 2);
		value.erase(0, value.find_first_not_of(' '));
		value.erase(value.find_last_not_of(" \r") + 1);
		return value == "(none)" || value == "no value" ? "" : value;
	}
	return "";
}

bool has_agent(const std::string &info)
{
	return info.find("\nzqs.app_name ") != std::string::npos;
}

std::vector<std::string> loading_ini_files(const PhpBinary &php)
{
	std::vector<std::string> files = {php.ini_file}, loading;
	if (!php.scan_folder.empty()) {
		for (const std::string &file : matching(php.scan_folder + "/*.ini")) files.push_back(file);
	}
	for (const std::string &file : files) {
		try {
			if (loads_agent(read_file(file))) loading.push_back(file);
		} catch (const std::exception &) {
			continue; // it is not there
		}
	}
	return loading;
}

} // namespace quorbit
