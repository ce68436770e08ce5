// quorbit web: the page in the browser.
#include "ask/command.h"

#include "ask/now.h"
#include "web/web.h"

#include <stdexcept>

namespace quorbit {

namespace {

using Tell = std::string (*)(const DaemonConfig &config);

// What a host alone can tell, and not the store of a fleet.
auto of_host(Tell tell)
{
	return [tell](const DaemonConfig &config) {
		if (config.store_url.empty()) return tell(config);
		throw std::runtime_error("a fleet's store does not tell the state of a host: ask `quorbit status` there");
	};
}

} // namespace

CommandRun add_web(CLI::App &command)
{
	auto options = std::make_shared<WebOptions>();
	options->status = of_host(status_json);
	options->now = of_host(requests_now_json);
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
