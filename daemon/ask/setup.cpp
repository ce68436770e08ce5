// quorbit setup: the PHPs of the host, and switching the agent on and off in them.
#include "ask/command.h"

#include "base/json_text.h"
#include "base/text.h"
#include "host/setup.h"
#include "print/output.h"
#include "print/report.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>

namespace quorbit {

namespace {

struct SetupArguments {
	CLI::App *enable = nullptr, *disable = nullptr;
	std::vector<std::string> phps;
	std::string application;
	bool dry_run = false, json = false;
};

// An ini file quotes with ", knows no escape for it, and reads ${...} as a variable.
std::string check_application(const std::string &name)
{
	const bool control = std::any_of(name.begin(), name.end(), [](unsigned char byte) { return byte < ' '; });
	return control || name.find_first_of("\"\\$") != std::string::npos ? "a name without \" \\ $ and control characters"
																	   : "";
}

const char *outcome_name(SetupOutcome outcome)
{
	constexpr const char *names[] = {"changed", "unchanged", "refused"};
	return names[static_cast<size_t>(outcome)];
}

std::string or_dash(const std::string &text)
{
	return text.empty() ? "-" : printable(text);
}

std::string state_of(const PhpBinary &php)
{
	if (php.enabled) return "on";
	return php.trouble.empty() ? "off" : "cannot be";
}

std::string table_of(const std::vector<PhpBinary> &phps)
{
	const std::vector<Column> columns = {
		{"PHP", false, true}, {"SERVER"}, {"VERSION"}, {"BUILD"}, {"INI FOLDER", false, true}, {"AGENT"}};
	std::vector<std::vector<std::string>> rows;
	std::string reasons;
	for (const PhpBinary &php : phps) {
		rows.push_back({printable(php.path), name_of(php.server), or_dash(php.version), or_dash(php.build),
			or_dash(php.scan_folder), state_of(php)});
		if (!php.trouble.empty()) reasons += printable(php.path) + ": " + printable(php.trouble) + "\n";
	}
	return table(columns, rows, list_width()) + (reasons.empty() ? "" : "\n" + reasons);
}

// What makes servers read their ini files again, once each.
std::vector<std::string> restarts(const std::vector<PhpBinary> &phps, const std::vector<SetupResult> &results)
{
	std::set<std::string> folders;
	for (const SetupResult &result : results) {
		if (result.outcome == SetupOutcome::changed) folders.insert(std::filesystem::path(result.file).parent_path());
	}
	std::set<std::string> commands;
	for (const PhpBinary &php : phps) {
		if (!folders.contains(php.scan_folder)) continue;
		for (int process : php.running) commands.insert(restart_command(php, process));
	}
	return {commands.begin(), commands.end()};
}

Json php_json(const PhpBinary &php)
{
	return {{"php", php.path}, {"server", name_of(php.server)}, {"version", php.version}, {"build", php.build},
		{"thread_safe", php.build.find(",TS") != std::string::npos}, {"ini_file", php.ini_file},
		{"ini_folder", php.scan_folder}, {"enabled", php.enabled}, {"enabled_by", php.enabled_by},
		{"trouble", php.trouble}, {"running", php.running}};
}

std::string answer_json(const std::vector<PhpBinary> &phps, const std::vector<SetupResult> &results)
{
	Json answer = {{"php", Json::array()}, {"results", Json::array()}, {"restart", restarts(phps, results)}};
	for (const PhpBinary &php : phps) answer["php"].push_back(php_json(php));
	for (const SetupResult &result : results) {
		answer["results"].push_back({{"php", result.php}, {"file", result.file},
			{"outcome", outcome_name(result.outcome)}, {"said", result.said}});
	}
	return json_text(answer, true);
}

// Lines of ini files that it quotes stay lines.
std::string result_text(const SetupResult &result)
{
	std::string text = printable(result.php) + ": ";
	for (size_t at = 0; at < result.said.size();) {
		const size_t end = std::min(result.said.find('\n', at), result.said.size());
		text += (at ? "    " : "") + printable(result.said.substr(at, end - at)) + "\n";
		at = end + 1;
	}
	if (result.outcome != SetupOutcome::refused && !result.file.empty())
		text.insert(text.size() - 1, " (" + printable(result.file) + ")");
	return text;
}

std::string answer_text(const std::vector<PhpBinary> &phps, const std::vector<SetupResult> &results, bool dry_run)
{
	std::string text;
	for (const SetupResult &result : results) text += result_text(result);
	const bool changed = std::any_of(results.begin(), results.end(),
		[](const SetupResult &result) { return result.outcome == SetupOutcome::changed; });
	if (!changed) return text;
	const auto commands = restarts(phps, results);
	text += dry_run ? "Nothing has been changed.\n" : "";
	text += commands.empty() ? "No server of these runs; command lines read it at their next start.\n"
							 : "For the servers that run, to read it:\n";
	for (const std::string &command : commands) text += "    " + printable(command) + "\n";
	return text;
}

// Those named, or without names all that are not out of the question.
std::vector<PhpBinary> chosen(const std::vector<std::string> &paths, std::vector<PhpBinary> &all)
{
	std::vector<PhpBinary> found;
	for (const std::string &path : paths) {
		found.push_back(php_binary(path));
		auto same = [&](const PhpBinary &php) { return php.path == found.back().path; };
		std::erase_if(all, same);
		all.push_back(found.back());
	}
	if (!paths.empty()) return found;
	std::copy_if(
		all.begin(), all.end(), std::back_inserter(found), [](const PhpBinary &php) { return php.trouble.empty(); });
	return found;
}

SetupOptions options_of(const SetupArguments &arguments, const DaemonConfig &config)
{
	SetupOptions options;
	options.prefix = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
	options.runtime_root = std::filesystem::path(config.folder()).parent_path().parent_path();
	if (arguments.enable->count("--app")) options.application = arguments.application;
	options.dry_run = arguments.dry_run;
	return options;
}

int setup(const SetupArguments &arguments, const DaemonConfig &config)
{
	auto all = php_binaries();
	const bool change = arguments.enable->parsed() || arguments.disable->parsed();
	if (!change) {
		put(arguments.json ? answer_json(all, {}) : table_of(all));
		return 0;
	}
	const auto options = options_of(arguments, config);
	std::vector<SetupResult> results;
	for (const PhpBinary &php : chosen(arguments.phps, all))
		results.push_back(arguments.enable->parsed() ? enable_agent(php, all, options) : disable_agent(php, options));
	if (arguments.json)
		put(answer_json(all, results));
	else
		put(answer_text(all, results, options.dry_run));
	if (results.empty() && arguments.enable->parsed())
		throw std::runtime_error(
			"there is no PHP here that the agent fits; `quorbit setup` lists those that were found");
	return std::any_of(results.begin(), results.end(),
		[](const SetupResult &result) { return result.outcome == SetupOutcome::refused; });
}

} // namespace

CommandRun add_setup(CLI::App &command)
{
	auto arguments = std::make_shared<SetupArguments>();
	command.add_flag("--dry-run", arguments->dry_run, "say what would be done, and do nothing");
	command.add_flag("--json", arguments->json, "for programs");
	arguments->enable = command.add_subcommand("enable", "switch the agent on")->group("Commands");
	arguments->disable = command.add_subcommand("disable", "switch it off again")->group("Commands");
	for (CLI::App *verb : {arguments->enable, arguments->disable})
		verb->add_option("PHP", arguments->phps, "programs or Apache modules; without any, all that the agent fits");
	arguments->enable
		->add_option("--app", arguments->application, "the name under which the application's actions are listed")
		->check(check_application);
	command.require_subcommand(0, 1);
	set_examples(command,
		{{"quorbit setup", "the PHPs of this host, and which the agent fits"},
			{"quorbit setup enable --dry-run", "what would be done"}, {"quorbit setup enable --app Shop", "doing it"}});
	return [arguments](const DaemonConfig &config) { return setup(*arguments, config); };
}

} // namespace quorbit
