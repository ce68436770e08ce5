// quorbit: the local daemon, and the command line that reads what it stored.
#include "ask/commands.h"
#include "receive/daemonize.h"
#include "ask/names.h"
#include "base/clock.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace {

// Times on the command line: seconds, or a number with its unit.
std::string check_seconds(const std::string &text)
{
	return quorbit::parse_seconds(text) ? std::string() : "expected a time such as 90s, 15m, 2h or 7d";
}

struct Arguments {
	std::string config_path;
	std::string root = "/var";
	bool foreground = false;
	quorbit::ShowOptions show;
	int64_t id = 0;
	std::string since = "1h", duration;
	quorbit::NamesOptions names;

	quorbit::DaemonConfig config() const
	{
		return config_path.empty() ? quorbit::default_daemon_config(root) : quorbit::read_daemon_config(config_path);
	}
};

void add_list_options(CLI::App *command, Arguments &arguments, bool json)
{
	command->add_option("--app", arguments.show.application, "only this application");
	if (json) command->add_flag("--json", arguments.show.json, "for programs");
}

void add_names(CLI::App &app, quorbit::NamesOptions &names)
{
	CLI::App *command =
		app.add_subcommand("names", "a dry run: which names requests would get under an application's settings");
	command->add_option("FILE", names.requests, "lines such as \"GET /path\", or an access log; - for standard input")
		->required();
	command->add_option("--app", names.application, "the application; * for one without settings of its own")
		->capture_default_str();
	command->add_option("--settings", names.settings, "a settings file instead of the daemon's applications.conf");
	command->add_option("--script", names.script, "the file that is run for URIs without \".php\"")
		->capture_default_str();
	command->add_option("-n", names.most, "how many names")->check(CLI::Range(1, 1000000))->capture_default_str();
}

void add_commands(CLI::App &app, Arguments &arguments)
{
	CLI::App *show = app.add_subcommand("show", "the newest actions, or one whole");
	show->add_option("ID", arguments.id, "an action of the list")->check(CLI::PositiveNumber);
	show->add_option("-n", arguments.show.most, "how many actions")
		->check(CLI::Range(1, 1000000))
		->capture_default_str();
	show->add_flag("--full", arguments.show.full, "of one action: every call and statement for itself, nothing cut");
	add_list_options(show, arguments, true);
	add_list_options(app.add_subcommand("tail", "actions as they come"), arguments, true);
	CLI::App *top = app.add_subcommand("top", "sums per action name");
	top->add_option("--since", arguments.since, "how far back")->check(check_seconds)->capture_default_str();
	add_list_options(top, arguments, false);
	app.add_subcommand("status", "applications and their processes; what to check when nothing comes");
	CLI::App *profile =
		app.add_subcommand("profile", "records an application's function calls for some time, and prints them");
	profile->add_option("APP", arguments.show.application, "name of the application")->required();
	profile->add_option("TIME", arguments.duration, "how long, such as 30s")->required()->check(check_seconds);
	add_names(app, arguments.names);
}

int run_command(const CLI::App &app, Arguments &arguments)
{
	auto config = arguments.config();
	const std::string command = app.get_subcommands().front()->get_name();
	const std::string &application = arguments.show.application;
	if (command == "tail") return quorbit::tail(config, application, arguments.show.json);
	if (command == "top") return quorbit::top(config, application, *quorbit::parse_seconds(arguments.since));
	if (command == "status") return quorbit::status(config);
	if (command == "profile") return quorbit::profile(config, application, *quorbit::parse_seconds(arguments.duration));
	if (command == "names") return quorbit::names(config, arguments.names);
	if (arguments.id) arguments.show.id = arguments.id;
	return quorbit::show(config, arguments.show);
}

} // namespace

int main(int argc, char **argv)
{
	CLI::App app("The local daemon of the Quorbit agent, and what it has received.\nWith -f alone: run the daemon.");
	Arguments arguments;
	app.add_option("-f", arguments.config_path, "the configuration file that the agent writes");
	app.add_option("--root", arguments.root, "zqs.runtime_root of the agent")->capture_default_str();
	app.add_flag("--foreground", arguments.foreground, "run the daemon without going into the background");
	app.require_subcommand(0, 1);
	app.fallthrough();
	add_commands(app, arguments);
	CLI11_PARSE(app, argc, argv);

	try {
		if (!app.get_subcommands().empty()) return run_command(app, arguments);
		if (!arguments.config_path.empty()) return quorbit::run_daemon(arguments.config_path, arguments.foreground);
		printf("%s", app.help().c_str());
		return 2;
	} catch (const std::exception &failure) {
		fprintf(stderr, "quorbit: %s\n", failure.what());
		return 1;
	}
}
