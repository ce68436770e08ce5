// quorbit names
#include "ask/names.h"

#include "facts/applications.h"
#include "base/text.h"
#include "base/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace quorbit {

namespace {

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

} // namespace

int names(const DaemonConfig &config, const NamesOptions &options)
{
	std::string path = options.settings.empty() ? config.applications_file() : options.settings;
	Applications applications = parse_applications(read_file(path));
	for (const std::string &problem : applications.problems) fprintf(stderr, "%s %s\n", path.c_str(), problem.c_str());
	Namer namer(settings_of(applications, options.application), options.script);
	NameCounts counts = count_file(options.requests, namer);
	std::string text = names_text(counts, options.most, terminal_width(), options.script);
	fwrite(text.data(), 1, text.size(), stdout);
	auto invalid = namer.invalid_rules();
	if (invalid) {
		std::string at = invalid->empty() ? "their end" : cut(printable(*invalid), 60);
		fprintf(stderr, "The naming rules are no JSON and were not used. What is wrong begins at: %s\n", at.c_str());
	}
	return invalid ? 1 : 0;
}

} // namespace quorbit
