// Which processes are PHP's, what they serve, and whether they have the agent.
#include "host/processes.h"

#include "host/fpm_pools.h"
#include "host/proc_files.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr std::string_view deleted = " (deleted)";

struct Found {
	PhpProcess process;
	std::string name;   // of the program
	std::string engine; // the file that is PHP: the program, or the library that it has mapped
	std::vector<std::string> arguments;
};

std::string_view file_name(std::string_view path)
{
	if (path.ends_with(deleted)) path.remove_suffix(deleted.size());
	return path.substr(path.rfind('/') + 1);
}

bool is_php_program(std::string_view name)
{
	return name.starts_with("php") && name.find("phpdbg") == std::string_view::npos &&
		name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.-") == std::string_view::npos;
}

// Whether the engine in this file takes our extension: then it has the build id that engine/check-id asks for.
bool takes_the_agent(const std::string &path)
{
	constexpr size_t part = size_t{1} << 20;
	constexpr std::string_view id = "API20131226,TS";
	FILE *file = fopen(path.c_str(), "rbe");
	if (!file) return false;
	std::string text;
	bool found = false;
	for (size_t length = part; !found && length == part;) {
		// What two parts share is looked at with the second.
		if (text.size() > id.size()) text.erase(0, text.size() - id.size());
		const size_t kept = text.size();
		text.resize(kept + part);
		length = fread(text.data() + kept, 1, part, file);
		text.resize(kept + length);
		found = text.find(id) != std::string::npos;
	}
	fclose(file);
	return found;
}

AgentState agent_of(const std::vector<std::string> &mapped)
{
	for (const std::string &file : mapped) {
		if (file_name(file) != "zqprof.so") continue;
		return file.ends_with(deleted) ? AgentState::replaced : AgentState::loaded;
	}
	return AgentState::missing;
}

// Of "-S address", "-S" among the options that come before the script.
std::optional<std::string> option(const std::vector<std::string> &arguments, std::string_view name)
{
	for (size_t i = 1; i + 1 < arguments.size() && arguments[i].starts_with('-'); i++) {
		if (arguments[i] == name) return arguments[i + 1];
		if (arguments[i].size() == 2 && std::string_view("dczbtSf").find(arguments[i][1]) != std::string_view::npos)
			i++;
	}
	return std::nullopt;
}

// The script of a command line, its name alone.
std::string script_of(const std::vector<std::string> &arguments)
{
	for (size_t i = 1; i < arguments.size(); i++) {
		const std::string &word = arguments[i];
		if (!word.starts_with('-')) return std::string(file_name(word));
		if (word == "-f" && i + 1 < arguments.size()) return std::string(file_name(arguments[i + 1]));
		if (word == "-d" || word == "-c" || word == "-z") i++;
	}
	return "";
}

void tell_pool(Found &found)
{
	PhpProcess &process = found.process;
	const std::string title = found.arguments.empty() ? "" : found.arguments[0];
	constexpr std::string_view pool = "php-fpm: pool ", master = "php-fpm: master process (";
	if (title.starts_with(pool) || title.starts_with(master) || found.name.find("fpm") != std::string::npos) {
		process.server = PhpServer::fpm;
		process.manages = !title.starts_with(pool);
		if (!process.manages) process.pool = title.substr(pool.size());
		if (title.starts_with(master)) process.config = title.substr(master.size(), title.rfind(')') - master.size());
	} else if (found.name.find("cgi") != std::string::npos) {
		process.server = PhpServer::cgi;
		process.pool = option(found.arguments, "-b").value_or("");
	} else if (auto address = option(found.arguments, "-S")) {
		process.server = PhpServer::built_in;
		process.pool = *address;
	} else if (is_php_program(found.name)) {
		process.server = PhpServer::cli;
		process.pool = script_of(found.arguments);
	} else if (found.name.starts_with("apache") || found.name.starts_with("httpd")) {
		process.server = PhpServer::apache;
	}
}

// The process in this folder when it is PHP's.
std::optional<Found> look_at(const std::string &folder, int id, int64_t boot_ms)
{
	auto stat = read_proc_stat(folder);
	auto status = read_proc_status(folder);
	if (!stat || !status) return std::nullopt;
	Found found;
	PhpProcess &process = found.process;
	process.id = id;
	process.parent = stat->parent;
	process.user = status->user;
	process.groups = status->groups;
	process.cpu_ticks = stat->cpu_ticks;
	process.started_ms = boot_ms + stat->started_ticks * 1000 / sysconf(_SC_CLK_TCK);
	process.executable = link_target(folder + "/exe");
	process.root = folder + "/root";
	found.name = process.executable.empty() ? stat->command : file_name(process.executable);
	found.engine = folder + "/exe";
	bool is_php = is_php_program(found.name);
	auto mapped = read_proc_mapped(folder);
	// An empty list is that of a process that is ending, or of the kernel's own.
	if (mapped && mapped->empty()) return std::nullopt;
	if (mapped) {
		process.agent = agent_of(*mapped);
		is_php = is_php || process.agent != AgentState::missing;
		for (const std::string &file : *mapped) {
			if (!file_name(file).starts_with("libphp")) continue;
			is_php = true;
			found.engine = process.root + file;
		}
	}
	if (!is_php) return std::nullopt;
	found.arguments = read_proc_arguments(folder);
	tell_pool(found);
	return found;
}

// One that has children of its own program and serves nothing itself.
void mark_managers(std::vector<Found> &all)
{
	for (Found &found : all) {
		if (found.process.server != PhpServer::apache && found.process.server != PhpServer::cgi) continue;
		found.process.manages = std::any_of(all.begin(), all.end(), [&](const Found &other) {
			return other.process.parent == found.process.id && other.process.executable == found.process.executable;
		});
	}
}

// As the agent reads it: a number, or a word that php.ini makes one of.
bool is_off(const std::string &value)
{
	constexpr std::string_view on[] = {"on", "On", "ON", "yes", "true"};
	return std::find(std::begin(on), std::end(on), value) == std::end(on) && atoi(value.c_str()) == 0;
}

// Switched off on the command line, as far as that is still there.
bool off_by_option(const std::vector<std::string> &arguments)
{
	constexpr std::string_view name = "zqs.agent_enabled=";
	for (const std::string &word : arguments) {
		const size_t at = word.find(name);
		if (at <= 2) return is_off(word.substr(at + name.size()));
	}
	return false;
}

void mark_switched_off(std::vector<Found> &all)
{
	std::map<int, std::map<std::string, std::map<std::string, std::string>>> pools; // by master
	for (const Found &found : all) {
		const PhpProcess &process = found.process;
		if (!process.config.empty()) pools[process.id] = settings_of_pools(process.root, process.config);
	}
	for (Found &found : all) {
		PhpProcess &process = found.process;
		if (process.agent != AgentState::loaded) continue;
		auto &settings = pools[process.parent][process.pool];
		auto set = settings.find("zqs.agent_enabled");
		if (off_by_option(found.arguments) || (set != settings.end() && is_off(set->second)))
			process.agent = AgentState::off;
	}
}

void mark_unfit(std::vector<Found> &all)
{
	std::map<std::string, bool> known; // by program: reading one takes some milliseconds
	for (Found &found : all) {
		if (found.process.agent != AgentState::missing) continue;
		auto [at, fresh] = known.try_emplace(found.process.executable + found.engine.substr(found.engine.rfind('/')));
		if (fresh) at->second = takes_the_agent(found.engine);
		if (!at->second) found.process.agent = AgentState::unfit;
	}
}

} // namespace

std::vector<PhpProcess> php_processes(const std::string &proc)
{
	const int64_t boot_ms = read_proc_boot_ms(proc);
	std::vector<Found> all;
	std::error_code failed;
	for (const auto &entry : std::filesystem::directory_iterator(proc, failed)) {
		const int id = atoi(entry.path().filename().c_str());
		if (id <= 0) continue;
		if (auto found = look_at(entry.path().string(), id, boot_ms)) all.push_back(std::move(*found));
	}
	mark_managers(all);
	mark_switched_off(all);
	mark_unfit(all);
	std::sort(all.begin(), all.end(), [](const Found &a, const Found &b) { return a.process.id < b.process.id; });
	std::vector<PhpProcess> processes;
	for (Found &found : all) processes.push_back(std::move(found.process));
	return processes;
}

int64_t cpu_ticks_of(const std::string &proc, int process)
{
	auto stat = read_proc_stat(proc + "/" + std::to_string(process));
	return stat ? stat->cpu_ticks : -1;
}

const char *name_of(PhpServer server)
{
	constexpr const char *names[] = {"FPM", "Apache", "CGI", "built-in", "CLI", "other"};
	return names[static_cast<size_t>(server)];
}

const char *name_of(AgentState agent)
{
	constexpr const char *names[] = {"loaded", "old", "off", "missing", "unfit", "unseen"};
	return names[static_cast<size_t>(agent)];
}

} // namespace quorbit
