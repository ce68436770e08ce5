// quorbit names: a dry run of naming.
#include "ask/command.h"

#include "ask/naming.h"
#include "facts/applications.h"
#include "base/files.h"
#include "base/text.h"
#include "print/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace quorbit {

namespace {

struct NamesOptions {
	std::string requests = "-";    // the file; "-" is standard input
	std::string application = "*"; // whose settings; "*" are those of applications without a section
	std::string settings;          // the file; "" for the daemon's applications.conf
	std::string script = "/index.php";
	bool fpm = false; // requests come by CGI or FPM
	size_t most = 20;
};

NameCounts count_file(const std::string &path, const Namer &namer)
{
	if (path == "-") return count_names(std::cin, namer);
	std::ifstream file(path, std::ios::binary);
	if (!file) throw std::runtime_error(path + ": " + strerror(errno));
	NameCounts counts = count_names(file, namer);
	// A folder opens, but does not read.
	if (file.bad()) throw std::runtime_error(path + ": cannot be read");
	return counts;
}

// Returns the exit status: 1 when the naming rules are not valid JSON.
int names(const DaemonConfig &config, const NamesOptions &options)
{
	std::string path = options.settings.empty() ? config.applications_file() : options.settings;
	Applications applications = parse_applications(read_file(path));
	for (const std::string &problem : applications.problems) tell(std::string(path).append(" ").append(problem));
	Namer namer(settings_of(applications, options.application), options.script, options.fpm);
	NameCounts counts = count_file(options.requests, namer);
	put(names_text(counts, options.most, list_width(), options.script));
	for (const std::string &line : namer.doubtful_patterns()) tell(printable(line));
	auto invalid = namer.invalid_rules();
	if (invalid) {
		std::string at = invalid->empty() ? "their end" : cut(printable(*invalid), 60);
		tell("The naming rules are not valid JSON and were not used. The error begins at: " + at);
	}
	return invalid ? 1 : 0;
}

} // namespace

CommandRun add_names(CLI::App &command)
{
	auto options = std::make_shared<NamesOptions>();
	command
		.add_option("FILE", options->requests, "lines such as \"GET /path\", or an access log; - for standard input")
		->type_name("FILE")
		->required();
	command.add_option("--app", options->application, "the application; * for one without settings of its own")
		->type_name("APP")
		->capture_default_str();
	command.add_option("--settings", options->settings, "a settings file instead of the daemon's applications.conf")
		->type_name("FILE");
	command.add_option("--script", options->script, "the file that is run for URIs without \".php\"")
		->capture_default_str();
	command.add_flag("--fpm", options->fpm, "requests come by CGI or FPM, not by Apache's module");
	command.add_option("-n", options->most, "how many names")->check(CLI::Range(1, 1000000))->capture_default_str();
	set_examples(command,
		{{"quorbit names /var/log/nginx/access.log --app Shop", "what these requests would be called"},
			{"echo 'GET /shop/cart?page=2' | quorbit names - --settings new.conf", "the same under other settings"}});
	return [options](const DaemonConfig &config) { return names(config, *options); };
}

} // namespace quorbit
