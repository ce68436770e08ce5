// quorbit web: the page in the browser.
#include "ask/command.h"

#include "ask/now.h"
#include "web/web.h"

namespace quorbit {

CommandRun add_web(CLI::App &command)
{
	auto options = std::make_shared<WebOptions>();
	options->status = status_json;
	options->now = requests_now_json;
	command.add_option("--listen", options->listen, "ADDRESS:PORT, or unix:PATH")->capture_default_str();
	command.add_option("--host", options->hosts, "a name under which a web server in front passes it on");
	command.add_option("--password-file", options->password_file, "its first line takes the place of the token");
	command.add_flag("--open", options->open, "start a browser");
	command.add_flag("--sample", options->sample, "a day of a shop that nobody runs, to look at before installing");
	set_examples(command,
		{{"quorbit web --sample --open", "what it looks like with a day of data"},
			{"quorbit web --open", "the page, in the browser of this machine"},
			{"quorbit web --listen unix:/run/quorbit-web.sock --host perf.example", "behind a web server"}});
	return [options](const DaemonConfig &config) { return run_web(config, *options); };
}

} // namespace quorbit
