// Two columns, the right one wrapped.
#include "ask/help.h"

#include "base/text.h"

#include <cstdint>
#include <regex>

namespace quorbit {

namespace {

constexpr size_t left = 24, page = 79;

// "  -n NUMBER             how many"; what is too wide for the left column stands on a line of its own.
std::string entry(const std::string &name, const std::string &text)
{
	std::string out = "  " + name;
	bool below = name.size() + 3 > left;
	for (const std::string &line : wrap(text, page - left, SIZE_MAX)) {
		if (below) out += '\n';
		const size_t column = below ? 0 : out.size();
		out.append(left - column, ' ').append(line);
		below = true;
	}
	return out + "\n";
}

} // namespace

std::string value_word(const CLI::Option &option)
{
	const std::string type = option.get_type_name();
	const size_t begin = type.find('{'), end = type.find('}');
	if (option.get_type_size() == 0 || option.get_positional()) return "";
	if (begin != std::string::npos && end != std::string::npos)
		return " " + std::regex_replace(type.substr(begin + 1, end - begin - 1), std::regex(","), "|");
	const bool number = type.starts_with("UINT") || type.starts_with("INT");
	return " " + std::string(number ? "NUMBER" : type.starts_with("TEXT") ? "VALUE" : type.substr(0, type.find(':')));
}

std::string purpose_of(const CLI::Option &option)
{
	const std::string standard = option.get_default_str();
	return option.get_description() + (standard.empty() ? "" : " (default: " + standard + ")");
}

HelpFormatter::HelpFormatter()
{
	label("SUBCOMMAND", "COMMAND");
	label("Subcommands", "Commands");
	label("Positionals", "Arguments");
}

std::string HelpFormatter::make_option(const CLI::Option *option, bool positional) const
{
	std::string name = make_option_name(option, positional);
	if (const size_t comma = name.find(','); comma != std::string::npos) name.insert(comma + 1, " ");
	return entry(name + value_word(*option), purpose_of(*option));
}

std::string HelpFormatter::make_subcommand(const CLI::App *command) const
{
	return entry(command->get_name(), command->get_description());
}

} // namespace quorbit
