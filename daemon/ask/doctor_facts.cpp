// Gathering for the doctor. What looks at one thing of the host stands by itself; the order is that of Checkup's
// fields.
#include "ask/doctor_facts.h"

#include "ask/host_state.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/number.h"
#include "base/version.h"
#include "facts/applications.h"
#include "host/fpm_pools.h"
#include "host/host_sample.h"
#include "host/proc_files.h"
#include "store/layout.h"
#include "store/open_reader.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fcntl.h>
#include <grp.h>
#include <set>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

namespace quorbit {

namespace {

constexpr auto most_wait = std::chrono::seconds(2); // for an action to arrive

// --- the store

struct Store {
	std::unique_ptr<Reader> reader;
	std::string trouble, remedy;
};

Store open_store(const DaemonConfig &config)
{
	Store store;
	if (!has_store(config)) return store;
	try {
		store.reader = open_reader(config);
		store.reader->position(); // reads it
	} catch (const LayoutError &other) {
		store.reader.reset();
		if (!other.remedy.empty()) store = {nullptr, other.trouble, other.remedy};
	} catch (const std::exception &failure) {
		store = {nullptr, failure.what(), ""};
	}
	return store;
}

// The stamp of an action that was received after that moment; 0 for none.
int64_t stamp_after(Reader &store, int64_t wall_ms)
{
	ActionQuestion later;
	later.filter.range.from_ms = wall_ms;
	later.most = 1;
	const auto rows = store.actions(later);
	return rows.empty() ? 0 : rows[0].received_ms;
}

// --- daemons and accounts

std::vector<DaemonProcess> daemons(const std::string &proc)
{
	std::vector<DaemonProcess> found;
	std::error_code failed;
	for (const auto &entry : std::filesystem::directory_iterator(proc, failed)) {
		int id = 0;
		if (!parse_number(entry.path().filename().string(), id)) continue;
		const std::string folder = entry.path().string();
		std::string program = link_target(folder + "/exe");
		program = program.substr(0, program.find(" (deleted)"));
		if (!program.ends_with("/quorbit")) continue;
		const auto words = read_proc_arguments(folder);
		const auto option = std::find(words.begin(), words.end(), "-f");
		const auto stat = read_proc_stat(folder);
		const bool serves = stat && stat->command != "quorbit-parent"; // receive/supervisor.cpp
		if (option == words.end() || option + 1 == words.end() || !serves) continue;
		found.push_back({id, *(option + 1)});
	}
	return found;
}

// In a process of its own, which takes this account: 0, or errno of what failed.
[[noreturn]] void try_as(const PhpProcess &process, const std::string &socket_file, const std::string &log)
{
	const bool changed = setgroups(process.groups.size(), process.groups.data()) == 0 &&
		setresgid(process.groups[0], process.groups[0], process.groups[0]) == 0 &&
		setresuid(process.user, process.user, process.user) == 0;
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	socket_file.copy(address.sun_path, sizeof(address.sun_path) - 1);
	const int file = socket(AF_UNIX, SOCK_STREAM, 0);
	if (!changed || file == -1) _exit(0); // not this host's fault
	if (connect(file, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) _exit(errno);
	_exit(open(log.c_str(), O_WRONLY | O_APPEND) == -1 ? errno | 0x80 : 0);
}

// What an account of PHP is refused; "" for nothing.
std::string refusal_as(const PhpProcess &process, const DaemonConfig &config)
{
	const std::string log = config.folder() + "/php-agent.log";
	const pid_t child = fork();
	if (child == -1) return "";
	if (child == 0) try_as(process, config.socket_file, log);
	int status = 0;
	while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
	const int failed = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
	if (failed == 0) return "";
	const bool writing = failed & 0x80;
	return (writing ? "write " + log : "connect to " + config.socket_file) + ": " + strerror(failed & 0x7F);
}

std::vector<AccountRefusal> refusals(const HostFacts &host, const DaemonConfig &config)
{
	std::vector<AccountRefusal> found;
	if (geteuid() != 0 || !host.daemon.answers) return found;
	std::set<std::pair<uid_t, std::vector<gid_t>>> tried;
	for (const ProcessGroup &group : host.groups) {
		const PhpProcess &process = group.first();
		const bool concerned = process.agent == AgentState::loaded && !process.manages && group.report.reaches &&
			group.report.same_folder && !process.groups.empty();
		if (!concerned || !tried.emplace(process.user, process.groups).second) continue;
		const std::string refusal = refusal_as(process, config);
		if (!refusal.empty()) found.push_back({group.report.account, refusal});
	}
	return found;
}

// --- files of the host

int64_t free_bytes(const std::string &folder)
{
	struct statvfs facts;
	if (statvfs(folder.c_str(), &facts) != 0) return INT64_MAX;
	return static_cast<int64_t>(facts.f_bavail) * static_cast<int64_t>(facts.f_frsize);
}

// The end of a log of the host's; "" when there is none, or not for this account.
std::string end_of(const std::string &path, size_t most)
{
	FILE *file = fopen(path.c_str(), "rbe");
	if (!file) return "";
	std::string text;
	if (fseek(file, 0, SEEK_END) == 0) {
		const long size = ftell(file);
		fseek(file, std::max(0L, size - static_cast<long>(most)), SEEK_SET);
		text.resize(most);
		text.resize(fread(text.data(), 1, most, file));
	}
	fclose(file);
	return text;
}

// Lines about our files in which the kernel says that a policy refused something: the newest of each log.
std::vector<std::string> denials(const std::string &folder)
{
	constexpr size_t most_bytes = size_t{1} << 20;
	std::vector<std::string> found;
	for (const char *log : {"/var/log/audit/audit.log", "/var/log/kern.log"}) {
		std::istringstream lines(end_of(log, most_bytes));
		std::string newest;
		for (std::string line; std::getline(lines, line);) {
			const bool refuses = line.find("denied") != std::string::npos || line.find("DENIED") != std::string::npos;
			const bool ours = line.find(folder) != std::string::npos || line.find("zqprof.so") != std::string::npos ||
				line.find("\"quorbit") != std::string::npos;
			if (refuses && ours) newest = line;
		}
		if (!newest.empty()) found.push_back(newest);
	}
	return found;
}

// By pool of each FPM that runs with the agent.
std::map<std::string, std::string> terminate_timeouts(const HostFacts &host)
{
	std::map<std::string, std::string> found;
	for (const ProcessGroup &group : host.groups) {
		for (const PhpProcess &process : group.processes) {
			if (process.config.empty() || process.agent != AgentState::loaded) continue;
			for (const auto &[pool, settings] : settings_of_pools(process.root, process.config)) {
				const auto timeout = settings.find("request_terminate_timeout");
				if (timeout != settings.end() && atoi(timeout->second.c_str()) > 0) found[pool] = timeout->second;
			}
		}
	}
	return found;
}

// --- applications.conf

void read_conf(const DaemonConfig &config, const std::vector<ApplicationRow> &known, Checkup &checkup)
{
	std::string text;
	try {
		text = read_file(config.applications_file(), true);
	} catch (const std::system_error &failure) {
		if (failure.code() != std::errc::no_such_file_or_directory) checkup.conf_problems.push_back(failure.what());
		return;
	} catch (const std::exception &failure) {
		checkup.conf_problems.push_back(failure.what());
		return;
	}
	const Applications applications = parse_applications(text);
	checkup.conf_problems = applications.problems;
	for (const auto &[name, settings] : applications.sections) {
		const bool used = name == "*" ||
			std::any_of(known.begin(), known.end(), [&name = name](const auto &row) { return row.name == name; });
		if (!used) checkup.unused_sections.push_back(name);
	}
}

// --- PHP

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

// In the usual places, and beside the folders that the PHPs here read.
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

// Whether what was received after that action holds one of this process, or of this path.
bool has_arrived(const DaemonConfig &config, int64_t after_id, int process, const std::string &path)
{
	const Store store = open_store(config);
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
	std::istringstream lines(end_of(log, std::min<uintmax_t>(now - size, 65536)));
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
	const Store store = open_store(config);
	const int64_t last = store.reader ? store.reader->position().last_id : 0;
	one.probed = true;
	one.probe = send();
	if (one.probe.trouble.empty()) one.arrived = arrives(config, last, one.probe.process, path);
	one.agent_said = one.arrived ? "" : agent_said_since(log, failed ? 0 : size);
}

std::vector<PhpCheckup> look_at_phps(const DaemonConfig &config, const DoctorOptions &options)
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

// What the applications of the probes are given that keeps requests out.
void add_given(const std::vector<ApplicationRow> &known, Checkup &checkup)
{
	std::set<std::string> names;
	for (const PhpCheckup &one : checkup.phps) names.insert(one.probe.value("zqs.app_name"));
	checkup.memory_safe_percent = 95; // ext/zqp_io_config.cpp
	for (const ApplicationRow &row : known) {
		if (!names.contains(row.name)) continue;
		for (const auto &[key, value] : parse_given(row.given)) {
			if (key == "zqs.urls_captured" || key == "zqs.agent_enabled") checkup.given[key] = value;
			if (key == "zqs.resource.safe") parse_number(value, checkup.memory_safe_percent);
			if (key == "zqs.resource.used") parse_number(value, checkup.memory_used_percent);
			if (key == "zqs.resource.enabled" && value == "0") checkup.memory_safe_percent = 0;
		}
	}
	const HostSample sample = HostSampler().take();
	if (sample.memory_bytes <= 0) return;
	const auto measured = static_cast<int>((sample.memory_bytes - sample.available_bytes) * 100 / sample.memory_bytes);
	checkup.memory_used_percent = std::max(checkup.memory_used_percent, measured);
}

} // namespace

Checkup doctor_facts(const DaemonConfig &config, const DoctorOptions &options)
{
	Checkup checkup;
	checkup.product_version = product_version;
	checkup.runtime_root = std::filesystem::path(config.folder()).parent_path().parent_path();
	checkup.phps = look_at_phps(config, options);
	Store store = open_store(config);
	std::vector<ApplicationRow> known;
	if (store.reader) {
		known = store.reader->applications();
		checkup.future_ms = stamp_after(*store.reader, wall_clock_ms() + 5000);
	}
	checkup.store_trouble = store.trouble;
	checkup.store_remedy = store.remedy;
	checkup.host = host_state(config, store.reader.get(), known, options.proc);
	checkup.strays = stray_ini_files(checkup.phps);
	checkup.daemons = daemons(options.proc);
	checkup.refusals = refusals(checkup.host, config);
	checkup.free_bytes = free_bytes(config.folder());
	read_conf(config, known, checkup);
	checkup.terminate_timeouts = terminate_timeouts(checkup.host);
	checkup.denials = denials(config.folder());
	add_given(known, checkup);
	return checkup;
}

} // namespace quorbit
