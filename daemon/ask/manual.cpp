// The manual pages, from help texts and from the settings file that is installed.
#include "ask/manual.h"

#include "ask/help.h"
#include "base/version.h"

#include <sstream>

namespace quorbit {

namespace {

// Text for troff: backslashes and hyphens are characters, and no line begins a request.
std::string roff(const std::string &text)
{
	std::string out;
	for (size_t i = 0; i < text.size(); i++) {
		const bool line_begins = i == 0 || text[i - 1] == '\n';
		if (line_begins && (text[i] == '.' || text[i] == '\'')) out += "\\&";
		if (text[i] == '\\')
			out += "\\e";
		else if (text[i] == '-')
			out += "\\-";
		else
			out += text[i];
	}
	return out;
}

std::string title(const std::string &page, int section, const std::string &about)
{
	return ".TH " + page + " " + std::to_string(section) + " \"\" \"quorbit " + product_version + "\"\n.SH NAME\n" +
		roff(page) + " \\- " + roff(about) + "\n";
}

std::string option_entry(const CLI::Option &option)
{
	std::string name = option.get_name(option.get_positional(), true);
	if (const size_t comma = name.find(','); comma != std::string::npos) name.insert(comma + 1, " ");
	return ".TP\n.B " + roff(name + value_word(option)) + "\n" + roff(purpose_of(option)) + ".\n";
}

std::string options_text(const CLI::App &app)
{
	std::string out;
	for (const CLI::Option *option : app.get_options()) {
		if (!option->get_group().empty() && option != app.get_help_ptr()) out += option_entry(*option);
	}
	return out;
}

std::string usage_of(const CLI::App &command)
{
	std::string usage = "quorbit " + command.get_name();
	for (const CLI::Option *option : command.get_options()) {
		if (!option->get_positional() || option->get_group().empty()) continue;
		const std::string name = option->get_single_name();
		usage += option->get_required() ? " " + name : " [" + name + "]";
	}
	return usage + " [options]";
}

std::string sentence(std::string text)
{
	if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
	return roff(text) + ".\n";
}

std::string verbatim(const std::string &text)
{
	return ".nf\n" + roff(text) + "\n.fi\n";
}

} // namespace

std::string manual_page(const CLI::App &app)
{
	std::string out = title("quorbit", 1, "what PHP applications did, and the daemon that receives it");
	out += ".SH SYNOPSIS\n";
	for (const CLI::App *command : app.get_subcommands({})) {
		if (!command->get_group().empty()) out += ".B " + roff(usage_of(*command)) + "\n.br\n";
	}
	out += ".B quorbit \\-f \\fICONFIGURATION\\fR [\\-\\-foreground]\n.SH DESCRIPTION\n" + roff(app.get_description()) +
		"\n.SH OPTIONS\n" + options_text(app) + ".SH COMMANDS\n";
	for (const CLI::App *command : app.get_subcommands({})) {
		if (command->get_group().empty()) continue;
		out += ".SS " + roff(usage_of(*command)) + "\n" + sentence(command->get_description()) + options_text(*command);
		for (const CLI::App *verb : command->get_subcommands({}))
			out += ".TP\n.B " + verb->get_name() + "\n" + sentence(verb->get_description()) + ".RS\n" +
				options_text(*verb) + ".RE\n";
		if (!command->get_footer().empty()) out += ".PP\n" + verbatim(command->get_footer());
	}
	return out +
		".SH OPTIONS OF EVERY COMMAND\n.TP\n.B \\-h, \\-\\-help\nIts options, and examples.\n"
		".SH EXIT STATUS\n0 for success; 1 for a failure, and when \\fBquorbit status\\fR finds something amiss; 2 for "
		"wrong "
		"usage.\n"
		".SH ENVIRONMENT\n.TP\n.B NO_COLOR\nIf it is set and not empty, nothing is coloured.\n"
		".SH FILES\nAll are in \\fI/var/log/quorbit\\fR, or below another \\-\\-root.\n"
		".TP\n.B applications.conf\nSettings of applications, see \\fBapplications.conf\\fR(5).\n"
		".TP\n.B quorbit.db\nWhat was received.\n"
		".TP\n.B daemon.log, php\\-agent.log\nThe logs of the daemon and of the agents.\n"
		".SH SEE ALSO\n\\fBapplications.conf\\fR(5)\n";
}

std::string settings_page(const std::string &settings_file)
{
	std::string out = title("applications.conf", 5, "what quorbit tells the PHP applications of a host");
	out += ".SH SYNOPSIS\n.I /var/log/quorbit/applications.conf\n.SH DESCRIPTION\n";
	std::istringstream lines(settings_file);
	std::string comment;
	bool any_setting = false;
	for (std::string line; std::getline(lines, line);) {
		if (line.starts_with("#")) {
			const std::string text = line.substr(std::min(line.size(), size_t{2}));
			comment += text.empty() ? ".PP\n" : roff(text) + "\n";
			continue;
		}
		if (line.empty()) {
			out += comment.empty() ? "" : comment + ".PP\n";
			comment.clear();
			continue;
		}
		if (!any_setting) out += ".SH SETTINGS\n";
		any_setting = true;
		// Settings that share a comment stand one below the other before it.
		std::string names;
		for (bool more = true; more && !line.empty(); more = static_cast<bool>(std::getline(lines, line))) {
			const std::string shown = line.starts_with(";") ? line.substr(1) : line;
			names += (names.empty() ? ".TP\n.B " : ".TQ\n.B ") + roff(shown) + "\n";
		}
		out += names + comment;
		comment.clear();
	}
	return out + ".SH SEE ALSO\n\\fBquorbit\\fR(1)\n";
}

} // namespace quorbit
