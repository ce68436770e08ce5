// What the doctor finds out about each PHP: what loads the agent, and whether a request of our own arrives.
#include "ask/doctor_parts.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

namespace quorbit {

namespace {

constexpr auto most_wait = std::chrono::seconds(2); // for an action to arrive

std::string complaint_in(const std::string &info)
{
	std::istringstream lines(info);
	for (std::string line; std::getline(lines, line);) {
		const bool warns = line.find("Warning") != std::string::npos || line.find("Fatal") != std::string::npos ||
			line.find("Unable to") != std::string::npos;
		if (warns && (line.find("zqprof") != std::string::npos || line.find("quorbit") != std::string::npos))
			return line;
	}
	return "";
}

PhpCheckup checkup_of(PhpBinary php, bool named)
{
	PhpCheckup one;
	one.title = php.path;
	one.named = named;
	one.loading = loading_ini_files(php);
	// Without a version it was not run, because other accounts can change it: nor is it here.
	if (php.is_program() && !php.version.empty()) {
		const std::string info = php_info(php);
		one.complaint = complaint_in(info);
		one.xdebug_as_extension = info.find("Xdebug MUST be loaded as a Zend extension") != std::string::npos;
	}
	one.php = std::move(php);
	return one;
}

// Whether what was received after that action holds one of this process, or of this path.
bool has_arrived(const DaemonConfig &config, int64_t after_id, int process, const std::string &path)
{
	const DoctorStore store = open_doctor_store(config);
	if (!store.reader) return false;
	ActionQuestion fresh;
	fresh.filter.after_id = after_id;
	fresh.most = 1000;
	const auto rows = store.reader->actions(fresh);
	return std::any_of(rows.begin(), rows.end(), [&](const ActionRow &row) {
		return process ? row.process == process : row.path == path || row.name.ends_with(path);
	});
}

bool arrives(const DaemonConfig &config, int64_t after_id, int process, const std::string &path)
{
	const auto end = std::chrono::steady_clock::now() + most_wait;
	while (!has_arrived(config, after_id, process, path)) {
		if (std::chrono::steady_clock::now() >= end) return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
	}
	return true;
}

// The last record of the agent's log that was written since it had this size and tells of trouble, without its stamp.
std::string agent_said_since(const std::string &log, uintmax_t size)
{
	std::error_code failed;
	const uintmax_t now = std::filesystem::file_size(log, failed);
	if (failed || now <= size) return "";
	std::istringstream lines(end_of_log(log, std::min<uintmax_t>(now - size, 65536)));
	std::string last;
	for (std::string line; std::getline(lines, line);) {
		for (const char *level : {") WARNING: ", ") ERROR: ", ") CRITICAL: "}) {
			const size_t at = line.find(level);
			if (at != std::string::npos) last = line.substr(at + 2);
		}
	}
	return last;
}

// A request, run by `send`, and whether its action arrives.
template <typename Send>
void probe(const DaemonConfig &config, PhpCheckup &one, const std::string &path, const Send &send)
{
	const std::string log = config.folder() + "/php-agent.log";
	std::error_code failed;
	const uintmax_t size = std::filesystem::file_size(log, failed);
	const DoctorStore store = open_doctor_store(config);
	const int64_t last = store.reader ? store.reader->position().last_id : 0;
	one.probed = true;
	one.probe = send();
	if (one.probe.trouble.empty()) one.arrived = arrives(config, last, one.probe.process, path);
	one.agent_said = one.arrived ? "" : agent_said_since(log, failed ? 0 : size);
}

} // namespace

std::vector<PhpCheckup> check_phps(const DaemonConfig &config, const DoctorOptions &options)
{
	std::vector<PhpCheckup> found;
	const ProbeScript script;
	for (const std::string &path : options.phps) found.push_back(checkup_of(php_binary(path), true));
	if (options.phps.empty()) {
		for (PhpBinary &php : php_binaries()) found.push_back(checkup_of(std::move(php), false));
	}
	for (PhpCheckup &one : found) {
		const bool runs_scripts = one.php.server == PhpServer::cli || one.php.server == PhpServer::cgi;
		if (one.php.enabled && runs_scripts && one.php.trouble.empty())
			probe(config, one, "", [&] { return probe_program(one.php.path, script); });
	}
	if (!options.fpm.empty()) {
		found.emplace_back().title = "FPM on " + options.fpm;
		probe(config, found.back(), "", [&] { return probe_fpm(options.fpm, script); });
	}
	if (!options.url.empty()) {
		found.emplace_back().title = options.url;
		probe(config, found.back(), path_of_url(options.url), [&] { return probe_url(options.url); });
	}
	return found;
}

std::vector<std::string> stray_ini_files(const std::vector<PhpCheckup> &phps)
{
	constexpr const char *places[] = {"/etc/php*/*/conf.d", "/etc/php*/*/*/conf.d", "/etc/php*/*/mods-available",
		"/etc/php.d", "/etc/php*/conf.d", "/usr/local/etc/php/conf.d", "/usr/local/etc/php*/conf.d",
		"/usr/local/php*/etc/php.d", "/usr/local/php*/etc/conf.d", "/opt/*/etc/php.d", "/opt/*/etc/conf.d"};
	std::set<std::string> folders, read;
	for (const char *place : places) {
		for (const std::string &folder : matching(place)) folders.insert(folder);
	}
	for (const PhpCheckup &one : phps) {
		read.insert(one.loading.begin(), one.loading.end());
		const std::string own = std::filesystem::path(one.php.ini_file).parent_path();
		if (own.size() < 2) continue;
		for (const char *beside : {"/conf.d", "/php.d", "/../*/conf.d"}) {
			for (const std::string &folder : matching(own + beside)) folders.insert(folder);
		}
	}
	std::vector<std::string> found;
	for (const std::string &folder : folders) {
		PhpBinary nobody;
		nobody.scan_folder = folder;
		for (const std::string &file : loading_ini_files(nobody)) {
			std::error_code failed;
			const bool is_read = std::any_of(read.begin(), read.end(),
				[&](const std::string &other) { return std::filesystem::equivalent(other, file, failed); });
			if (!is_read) found.push_back(file);
		}
	}
	return found;
}

} // namespace quorbit
