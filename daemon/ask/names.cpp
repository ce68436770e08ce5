// quorbit names: a dry run of naming.
#include "ask/command.h"

#include "ask/naming.h"
#include "base/clock.h"
#include "facts/applications.h"
#include "base/files.h"
#include "base/text.h"
#include "print/output.h"
#include "store/open_reader.h"

#include <algorithm>
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
	bool fpm = false;     // requests come by CGI or FPM
	bool missing = false; // the paths from which no packet comes instead of names
	size_t most = 20;
};

// What `count` makes of the lines of a file, or of standard input.
template <typename Count>
auto count_file(const std::string &path, const Count &count)
{
	if (path == "-") return count(std::cin);
	std::ifstream file(path, std::ios::binary);
	if (!file) throw std::runtime_error(path + ": " + strerror(errno));
	auto counts = count(file);
	// A folder opens, but does not read.
	if (file.bad()) throw std::runtime_error(path + ": cannot be read");
	return counts;
}

// Paths from which packets came in the last `days`.
std::set<std::string> seen_paths(Reader &store, int64_t days)
{
	constexpr int64_t most_paths = 100000;
	SumQuestion question;
	question.key = SumKey::path;
	question.filter.range = {wall_clock_ms() - days * day_ms, wall_clock_ms()};
	question.most = most_paths;
	std::set<std::string> seen;
	for (const SumRow &row : store.sums(question).rows) seen.insert(row.key.name);
	return seen;
}

int missing(const DaemonConfig &config, const NamesOptions &options)
{
	constexpr int64_t days = 7;
	const auto seen = seen_paths(*open_reader(config), days);
	const auto paths =
		count_file(options.requests, [&seen](std::istream &lines) { return count_missing(lines, seen); });
	if (paths.empty()) {
		put("Packets have come from all of these pages.\n");
		return 0;
	}
	std::vector<std::pair<std::string, int64_t>> sorted(paths.begin(), paths.end());
	std::stable_sort(sorted.begin(), sorted.end(), [](const auto &a, const auto &b) { return a.second > b.second; });
	std::vector<std::vector<std::string>> cells;
	for (const auto &[path, requests] : sorted) {
		if (cells.size() < options.most) cells.push_back({std::to_string(requests), printable(path)});
	}
	put("No packet has come from these pages in the last seven days:\n\n" +
		table({{"REQUESTS", true}, {"PATH", false, true}}, cells, list_width()));
	if (sorted.size() > cells.size()) put("... and " + std::to_string(sorted.size() - cells.size()) + " more (-n)\n");
	return 0;
}

// Returns the exit status: 1 when the naming rules are not valid JSON.
int names(const DaemonConfig &config, const NamesOptions &options)
{
	std::string path = options.settings.empty() ? config.applications_file() : options.settings;
	Applications applications = parse_applications(read_file(path));
	for (const std::string &problem : applications.problems) tell(std::string(path).append(" ").append(problem));
	Namer namer(settings_of(applications, options.application), options.script, options.fpm);
	NameCounts counts = count_file(options.requests, [&namer](std::istream &lines) {
		const Working working("naming the requests");
		return count_names(lines, namer);
	});
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
	command.add_flag("--missing", options->missing, "instead of names, the pages from which no packet has come");
	command.add_option("-n", options->most, "how many names or pages")
		->check(CLI::Range(1, 1000000))
		->capture_default_str();
	set_examples(command,
		{{"quorbit names /var/log/nginx/access.log --app Shop", "what these requests would be called"},
			{"echo 'GET /shop/cart?page=2' | quorbit names - --settings new.conf", "the same under other settings"},
			{"quorbit names /var/log/nginx/access.log --missing", "the pages from which no packet has come"}});
	return [options](const DaemonConfig &config) {
		return options->missing ? missing(config, *options) : names(config, *options);
	};
}

} // namespace quorbit
