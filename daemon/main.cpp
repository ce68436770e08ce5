// quorbit: the local daemon, and the command line that reads what it stored.
#include "ask/clickhouse.h"
#include "ask/command.h"
#include "ask/help.h"
#include "ask/now.h"
#include "ask/radar.h"
#include "base/version.h"
#include "print/output.h"
#include "receive/daemonize.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace {

struct Command {
	const char *name, *summary;
	quorbit::CommandRun (*add)(CLI::App &command);
	bool of_fleet = false; // it can ask a fleet's store as well
};

constexpr Command commands[] = {
	{"show", "the newest actions, or one in full", quorbit::add_show, true},
	{"tail", "actions as they come", quorbit::add_tail},
	{"now", "the requests that run at this moment, and what each waits for", quorbit::add_now},
	{"top", "what takes most time: actions, statements, calls, errors and more", quorbit::add_top, true},
	{"queries", "the statements that take most time, where they run and what would help", quorbit::add_queries, true},
	{"errors", "errors that are the same but for their values, since when and how often", quorbit::add_errors, true},
	{"mark", "notes that a release has been rolled out", quorbit::add_mark},
	{"compare", "what is new, gone, slower, faster or fails more often, since a release or between two times",
		quorbit::add_compare, true},
	{"radar", "what later versions of PHP will not run, where it is, and which functions nobody calls",
		quorbit::add_radar},
	{"status", "whether every PHP process of the host reports, and what to do where one does not", quorbit::add_status},
	{"web", "the page in the browser, and its API", quorbit::add_web, true},
	{"profile", "records an application's function calls for some time, and prints them", quorbit::add_profile},
	{"names", "a dry run: which names requests would get under an application's settings", quorbit::add_names, true},
	{"setup", "the PHPs of this host; switches the agent on and off in them", quorbit::add_setup},
	{"doctor", "looks for what keeps reports from arriving, in the order in which things fail, and tries a request",
		quorbit::add_doctor},
	{"clickhouse", "the tables of a fleet's store in ClickHouse", quorbit::add_clickhouse, true},
	{"manual", "what the shell and man are told", quorbit::add_manual},
};

struct Arguments {
	std::string config_path;
	std::string root = "/var";
	std::string store_url;
	bool foreground = false;
	const Command *chosen = nullptr; // none: run the daemon
	quorbit::CommandRun command;

	quorbit::DaemonConfig config() const
	{
		auto config =
			config_path.empty() ? quorbit::default_daemon_config(root) : quorbit::read_daemon_config(config_path);
		config.store_url = store_url;
		if (!store_url.empty() && !chosen->of_fleet) throw std::runtime_error(refusal());
		return config;
	}

private:
	// Why this command has no use for --store.
	std::string refusal() const
	{
		std::string names;
		for (const Command &command : commands) {
			if (command.of_fleet) names.append(names.empty() ? "" : ", ").append(command.name);
		}
		return std::string("`quorbit ") + chosen->name + "` is about this host alone: leave --store out (it is for " +
			names + ")";
	}
};

void add_commands(CLI::App &app, Arguments &arguments)
{
	for (const Command &command : commands) {
		CLI::App *added = app.add_subcommand(command.name, command.summary)->group("Commands");
		auto run = command.add(*added);
		added->callback([&arguments, &command, run] {
			arguments.chosen = &command;
			arguments.command = run;
		});
	}
}

// What is wrong with the arguments, and the usage of the command that they are for. Returns the exit status.
int refuse(const CLI::App &app, const CLI::ParseError &error)
{
	quorbit::tell(std::string("quorbit: ") + error.what());
	const std::string help = app.help();
	const size_t usage = help.find("Usage:");
	if (usage != std::string::npos) quorbit::tell(help.substr(usage, help.find('\n', usage) - usage));
	return 2;
}

// The arguments in CLI11's order, the last one first. Many try `quorbit help` and `quorbit help COMMAND`.
std::vector<std::string> words_of(int argc, char **argv)
{
	std::vector<std::string> words(argv + 1, argv + argc);
	if (!words.empty() && words[0] == "help") {
		words.erase(words.begin());
		words.emplace_back("--help");
	}
	std::reverse(words.begin(), words.end());
	return words;
}

std::string version_text()
{
	return std::string("quorbit ") + quorbit::product_version + " (protocol " + quorbit::protocol_version + ")";
}

} // namespace

int main(int argc, char **argv)
{
	CLI::App app("What PHP applications did, and the local daemon that receives it.", "quorbit");
	Arguments arguments;
	app.add_option("-f", arguments.config_path, "run the daemon by this configuration file, which the agent writes")
		->type_name("FILE");
	app.add_option("--root", arguments.root, "where the logs and the store are: zqs.runtime_root of the agent")
		->type_name("FOLDER")
		->capture_default_str();
	app.add_option("--store", arguments.store_url,
		   "ask the store of a fleet: its address (http://host:8123/quorbit), or \"fleet\" for the one that "
		   "applications.conf names")
		->type_name("URL");
	app.add_flag("--foreground", arguments.foreground, "with -f: stay in the foreground");
	app.require_subcommand(0, 1);
	app.fallthrough();
	app.formatter(std::make_shared<quorbit::HelpFormatter>());
	app.set_help_flag("-h,--help", "this help");
	add_commands(app, arguments);
	app.set_version_flag("--version", version_text(), "the versions of the product and of its protocol");
	try {
		app.parse(words_of(argc, argv));
	} catch (const CLI::ParseError &error) {
		return error.get_exit_code() == 0 ? app.exit(error) : refuse(app, error);
	}

	try {
		if (arguments.command) return arguments.command(arguments.config());
		if (!arguments.store_url.empty()) throw std::runtime_error("--store is for commands");
		if (!arguments.config_path.empty()) return quorbit::run_daemon(arguments.config_path, arguments.foreground);
		printf("%s", app.help().c_str());
		return 2;
	} catch (const std::exception &failure) {
		quorbit::tell(std::string("quorbit: ") + failure.what());
		return 1;
	}
}
