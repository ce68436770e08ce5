// The ini file that switches the agent on: written, tried, taken back.
#include "host/setup.h"

#include "base/files.h"
#include "host/proc_files.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr const char *first_line = "; Written by `quorbit setup enable`; `quorbit setup disable` takes it back.\n";
constexpr const char *module_folder = "/lib/quorbit/no-debug-zts-20131226"; // packaging/layout.sh
constexpr const char *module_name = "/zqprof.so";
constexpr const char *default_prefix = "/usr", *default_root = "/var"; // ext/zqprof_settings.cpp

std::string our_file(const PhpBinary &php)
{
	return php.scan_folder + "/quorbit.ini";
}

bool exists(const std::string &path)
{
	return access(path.c_str(), F_OK) == 0;
}

// The package's extension or, after `make install` and phpize, the one in PHP's own folder; "" without either.
std::string module_of(const PhpBinary &php, const SetupOptions &options)
{
	const std::string packaged = options.prefix + module_folder + module_name;
	const std::string own = php.extension_folder + module_name;
	if (exists(packaged)) return packaged;
	return !php.extension_folder.empty() && exists(own) ? own : "";
}

std::string setting_line(const std::string &name, const std::string &value)
{
	return name + " = \"" + value + "\"\n";
}

std::string new_text(const std::string &module, const SetupOptions &options)
{
	std::string text = std::string(first_line) + "; Every setting with its default: " + options.prefix +
		"/share/quorbit/quorbit.ini\nextension = " + module + "\n";
	if (options.prefix != default_prefix) text += setting_line("zqs.prefix", options.prefix);
	if (options.runtime_root != default_root) text += setting_line("zqs.runtime_root", options.runtime_root);
	return text;
}

// The text with this name of the application in place of the one that it has.
std::string with_application(std::string text, const std::string &application)
{
	constexpr const char *name = "zqs.app_name";
	const std::string line = setting_line(name, application);
	size_t at = text.starts_with(name) ? 0 : text.find(std::string("\n") + name);
	if (at == std::string::npos) return text + (text.ends_with('\n') ? "" : "\n") + line;
	if (at > 0) at++;
	const size_t end = text.find('\n', at);
	return text.replace(at, end == std::string::npos ? end : end + 1 - at, line);
}

// Whether it has only lines of ours: then nothing is lost with it.
bool is_as_written(const std::string &text)
{
	constexpr std::string_view ours[] = {
		"; ", "extension = ", "zqs.prefix = ", "zqs.runtime_root = ", "zqs.app_name = "};
	for (size_t at = 0; at < text.size();) {
		const size_t end = std::min(text.find('\n', at), text.size());
		const std::string_view line = std::string_view(text).substr(at, end - at);
		if (std::none_of(std::begin(ours), std::end(ours), [&](auto begin) { return line.starts_with(begin); }))
			return false;
		at = end + 1;
	}
	return true;
}

std::optional<std::string> text_of(const std::string &path)
{
	return exists(path) ? std::optional(read_file(path)) : std::nullopt;
}

// A PHP that starts meanwhile reads the file before or the one after.
void replace_file(const std::string &path, const std::string &text)
{
	const std::string fresh = path + ".new"; // ini files are those that end in ".ini"
	int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
	bool written = file != -1 && fchmod(file, 0644) == 0 &&
		write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
	if (file != -1) close(file);
	if (written && rename(fresh.c_str(), path.c_str()) == 0) return;
	int error = errno;
	unlink(fresh.c_str());
	throw std::system_error(error, std::generic_category(), path);
}

void put_back(const std::string &path, const std::optional<std::string> &text)
{
	if (text)
		replace_file(path, *text);
	else
		unlink(path.c_str());
}

// What PHP says about its own start, above the report: "PHP Warning: ... Unable to load dynamic library ...".
std::string complaint(const std::string &info)
{
	for (size_t at = 0; at < info.size();) {
		const size_t end = std::min(info.find('\n', at), info.size());
		const std::string line = info.substr(at, end - at);
		if (line.find("zqprof") != std::string::npos || line.find("Fatal") != std::string::npos) return line;
		at = end + 1;
	}
	return "it says nothing of the extension";
}

// Why this PHP does not load the agent with these settings; "" when it does, or cannot be asked.
std::string refusal_of(const PhpBinary &php, const std::vector<std::string> &settings)
{
	if (!php.is_program()) return "";
	const std::string info = php_info(php, settings);
	return has_agent(info) ? "" : php.path + " does not load it: " + complaint(info);
}

// Those that read ini files from the same folder.
std::vector<PhpBinary> readers_of(const std::string &folder, const std::vector<PhpBinary> &all)
{
	std::vector<PhpBinary> readers;
	for (const PhpBinary &php : all) {
		if (php.scan_folder == folder) readers.push_back(php);
	}
	return readers;
}

// What stands in the way before anything is tried; "" for nothing.
std::string obstacle(
	const PhpBinary &php, const std::vector<PhpBinary> &all, const std::string &module, const SetupOptions &options)
{
	if (!php.trouble.empty()) return php.trouble;
	if (module.empty()) {
		return "there is no zqprof.so in " + options.prefix + module_folder + " nor in " + php.extension_folder +
			": install the package quorbit-php";
	}
	if (php.scan_folder.empty()) {
		std::string lines = new_text(module, options);
		lines.erase(0, lines.find("extension"));
		if (options.application) lines = with_application(lines, *options.application);
		return "it scans no folder for ini files: put these lines into " + php.ini_file + "\n" + lines;
	}
	if (!exists(php.scan_folder)) return "the folder that it scans is missing: mkdir -p " + php.scan_folder;
	for (const PhpBinary &other : readers_of(php.scan_folder, all)) {
		if (other.trouble.empty()) continue;
		return other.path + " reads " + php.scan_folder + " as well and cannot load it: " + other.trouble;
	}
	return "";
}

// Writes the file and makes sure that whoever reads it loads the agent.
SetupResult write_and_try(
	SetupResult result, const PhpBinary &php, const std::vector<PhpBinary> &all, const std::string &text)
{
	const auto before = text_of(result.file);
	replace_file(result.file, text);
	auto readers = readers_of(php.scan_folder, all);
	if (readers.empty()) readers.push_back(php);
	for (const PhpBinary &reader : readers) {
		const std::string refusal = refusal_of(reader, {});
		if (refusal.empty()) continue;
		put_back(result.file, before);
		result.outcome = SetupOutcome::refused;
		result.said = refusal + "; the file was taken back";
		return result;
	}
	result.outcome = SetupOutcome::changed;
	result.said = php.is_program() ? "enabled, and it loads the agent" : "enabled; Apache alone can try it";
	return result;
}

// With what stands in the file, or stood there before it was switched off, in place of `fresh`.
SetupResult write_file(SetupResult result, const PhpBinary &php, const std::vector<PhpBinary> &all,
	const std::string &fresh, const SetupOptions &options)
{
	const std::string kept = result.file + ".off";
	const auto present = text_of(result.file), off = text_of(kept);
	std::string text = present ? *present : off ? *off : fresh;
	if (options.application) text = with_application(text, *options.application);
	result.outcome = SetupOutcome::changed;
	result.said = "would be enabled";
	if (options.dry_run) return result;
	result = write_and_try(std::move(result), php, all, text);
	if (off && result.outcome == SetupOutcome::changed) unlink(kept.c_str());
	return result;
}

} // namespace

SetupResult enable_agent(const PhpBinary &php, const std::vector<PhpBinary> &all, const SetupOptions &options)
{
	SetupResult result{php.path, php.scan_folder.empty() ? "" : our_file(php), SetupOutcome::refused, ""};
	const auto loading = loading_ini_files(php);
	const auto present = text_of(result.file);
	const bool elsewhere = !loading.empty() && loading.front() != result.file;
	if (elsewhere) {
		result.file = loading.front();
		result.outcome = options.application || !php.trouble.empty() ? SetupOutcome::refused : SetupOutcome::unchanged;
		result.said = "enabled by a file that is not ours" +
			std::string(options.application ? ": name the application there" : "");
		return result;
	}
	const std::string module = module_of(php, options);
	if (std::string why = obstacle(php, all, module, options); !why.empty()) {
		result.said = why;
		return result;
	}
	const bool as_asked = present && !loading.empty() &&
		(!options.application || with_application(*present, *options.application) == *present);
	if (as_asked) {
		result.outcome = SetupOutcome::unchanged;
		result.said = "enabled already";
		return result;
	}
	// What is switched on already loads the agent.
	const std::string why = present ? "" : refusal_of(php, {"extension=" + module});
	if (why.empty()) return write_file(std::move(result), php, all, new_text(module, options), options);
	result.said = why;
	return result;
}

SetupResult disable_agent(const PhpBinary &php, const SetupOptions &options)
{
	SetupResult result{php.path, php.scan_folder.empty() ? "" : our_file(php), SetupOutcome::unchanged, "not enabled"};
	const auto loading = loading_ini_files(php);
	const auto text = text_of(result.file);
	if (!text || !text->starts_with(first_line)) {
		if (loading.empty()) return result;
		result.file = loading.front();
		result.outcome = SetupOutcome::refused;
		result.said = "enabled by a file that is not ours: take its extension line out";
		return result;
	}
	const bool ours = is_as_written(*text);
	result.outcome = SetupOutcome::changed;
	result.said = std::string(options.dry_run ? "would be disabled" : "disabled") +
		(ours ? "" : "; the settings that were added are kept in " + result.file + ".off");
	if (options.dry_run) return result;
	const std::string kept = result.file + ".off";
	int failed = ours ? unlink(result.file.c_str()) : rename(result.file.c_str(), kept.c_str());
	if (failed) throw std::system_error(errno, std::generic_category(), result.file);
	return result;
}

std::string restart_command(const PhpBinary &php, int process)
{
	const std::string id = std::to_string(process);
	// "0::/system.slice/php5.6-fpm.service"
	const std::string groups = read_proc_file("/proc/" + id + "/cgroup").value_or("");
	constexpr std::string_view service = ".service", slice = "system.slice/";
	const size_t end = groups.find(std::string(service) + "\n"), begin = groups.find(slice);
	if (end != std::string::npos && begin < end) {
		const size_t name = groups.rfind('/', end) + 1;
		return "systemctl restart " + groups.substr(name, end - name);
	}
	if (php.server == PhpServer::fpm) return "kill -USR2 " + id;
	if (php.server == PhpServer::apache) return "kill -USR1 " + id;
	return "end process " + id + " and start it again";
}

} // namespace quorbit
