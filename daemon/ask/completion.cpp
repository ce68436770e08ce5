// Completion for bash and zsh.
#include "ask/manual.h"

#include <algorithm>
#include <regex>

namespace quorbit {

namespace {

enum class Value { none, any, file, folder, application, choice };

// The values of "TEXT:{table,raw}".
std::string choices_of(const CLI::Option &option)
{
	const std::string type = option.get_type_name();
	const size_t begin = type.find('{'), end = type.find('}');
	if (begin == std::string::npos || end == std::string::npos) return "";
	std::string words = type.substr(begin + 1, end - begin - 1);
	std::replace(words.begin(), words.end(), ',', ' ');
	return words;
}

Value value_of(const CLI::Option &option)
{
	if (option.get_type_size() == 0) return Value::none;
	if (!choices_of(option).empty()) return Value::choice;
	const std::string type = option.get_type_name();
	if (type.starts_with("FILE")) return Value::file;
	if (type.starts_with("FOLDER")) return Value::folder;
	if (type.starts_with("APP")) return Value::application;
	return Value::any;
}

// "-n", "--app": every way to write it.
std::vector<std::string> flags_of(const CLI::Option &option)
{
	std::vector<std::string> flags;
	for (const std::string &name : option.get_snames()) flags.push_back("-" + name);
	for (const std::string &name : option.get_lnames()) flags.push_back("--" + name);
	return flags;
}

std::vector<const CLI::Option *> shown_options(const CLI::App &app, bool positional)
{
	std::vector<const CLI::Option *> found;
	for (const CLI::Option *option : app.get_options()) {
		if (!option->get_group().empty() && option->get_positional() == positional) found.push_back(option);
	}
	return found;
}

std::vector<const CLI::App *> shown_commands(const CLI::App &app)
{
	std::vector<const CLI::App *> found;
	for (const CLI::App *command : app.get_subcommands({})) {
		if (!command->get_group().empty()) found.push_back(command);
	}
	return found;
}

std::string joined(const std::vector<std::string> &words, const char *between)
{
	std::string text;
	for (const std::string &word : words) text += (text.empty() ? "" : between) + word;
	return text;
}

std::string bash_reply(const CLI::Option &option)
{
	switch (value_of(option)) {
	case Value::choice: return "_quorbit_words '" + choices_of(option) + "'";
	case Value::file: return "mapfile -t COMPREPLY < <(compgen -f -- \"$word\")";
	case Value::folder: return "mapfile -t COMPREPLY < <(compgen -d -- \"$word\")";
	case Value::application: return "_quorbit_applications";
	default: return ":";
	}
}

std::string bash_values(const CLI::App &app, const std::string &indent)
{
	std::string out;
	for (const CLI::Option *option : shown_options(app, false)) {
		if (value_of(*option) == Value::none) continue;
		out += indent + joined(flags_of(*option), " | ") + ") " + bash_reply(*option) + "; return ;;\n";
	}
	return out;
}

std::string flag_words(const CLI::App &app)
{
	std::vector<std::string> words;
	for (const CLI::App *verb : shown_commands(app)) {
		if (app.get_parent()) words.push_back(verb->get_name());
	}
	for (const CLI::Option *option : shown_options(app, false)) {
		for (const std::string &flag : flags_of(*option)) words.push_back(flag);
	}
	return joined(words, " ");
}

std::string bash_command(const CLI::App &command)
{
	std::string out = "    " + command.get_name() + ")\n        case \"$before\" in\n" +
		bash_values(command, "        ") + "        esac\n        options='" + flag_words(command) + "'\n";
	const auto positionals = shown_options(command, true);
	if (!positionals.empty()) out += "        [[ $word == -* ]] || { " + bash_reply(*positionals[0]) + "; return; }\n";
	return out + "        ;;\n";
}

// In an argument of _arguments, within single quotes.
std::string zsh_text(const std::string &text)
{
	static const std::regex special(R"re([\[\]:\\])re"), quote("'");
	return std::regex_replace(std::regex_replace(text, special, "\\$&"), quote, "'\\''");
}

std::string zsh_action(const CLI::Option &option)
{
	switch (value_of(option)) {
	case Value::choice: return "(" + choices_of(option) + ")";
	case Value::file: return "_files";
	case Value::folder: return "_files -/";
	case Value::application: return "_quorbit_applications";
	default: return "";
	}
}

std::string zsh_arguments(const CLI::App &app)
{
	std::string out;
	for (const CLI::Option *option : shown_options(app, false)) {
		const auto flags = flags_of(*option);
		const std::string value = value_of(*option) == Value::none
			? ""
			: ":" + zsh_text(option->get_single_name()) + ":" + zsh_action(*option);
		const std::string before = " \\\n        '(" + joined(flags, " ") + ")";
		const std::string after = "[" + zsh_text(option->get_description()) + "]" + value + "'";
		for (const std::string &flag : flags) out.append(before).append(flag).append(after);
	}
	for (const CLI::Option *option : shown_options(app, true))
		out += " \\\n        ':" + zsh_text(option->get_single_name()) + ":" + zsh_action(*option) + "'";
	return out;
}

} // namespace

std::string bash_completion(const CLI::App &app)
{
	std::string commands, cases;
	for (const CLI::App *command : shown_commands(app)) {
		commands += (commands.empty() ? "" : " ") + command->get_name();
		cases += bash_command(*command);
	}
	std::string out = R"text(# Completion of quorbit's commands for bash, written by `quorbit manual bash`.
_quorbit_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word"); }
_quorbit_applications() {
    local name
    while read -r name; do
        [[ $name == "$word"* ]] && COMPREPLY+=("$(printf %q "$name")")
    done < <(quorbit "${root[@]}" manual applications 2>/dev/null)
}
_quorbit() {
    local word="${COMP_WORDS[COMP_CWORD]}" before="${COMP_WORDS[COMP_CWORD - 1]}" command="" options="" root=() i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "${COMP_WORDS[i]}" in
        -f | --root) root=("${COMP_WORDS[i]}" "${COMP_WORDS[i + 1]}"); ((i++)) ;;
        -*) ;;
        *) [[ -n $command ]] || command="${COMP_WORDS[i]}" ;;
        esac
    done
    case "$before" in
)text";
	out += bash_values(app, "    ") + "    esac\n    case \"$command\" in\n    '') options='" + commands + " " +
		flag_words(app) + "' ;;\n" + cases;
	return out + "    esac\n    _quorbit_words \"$options\"\n}\ncomplete -F _quorbit quorbit\n";
}

std::string zsh_completion(const CLI::App &app)
{
	std::string commands, cases;
	for (const CLI::App *command : shown_commands(app)) {
		const std::string &name = command->get_name();
		commands += "        '" + name + ":" + zsh_text(command->get_description()) + "'\n";
		cases += "    " + name + ")\n        _arguments" + zsh_arguments(*command) + "\n        ;;\n";
	}
	std::string out = R"text(#compdef quorbit
# Completion of quorbit's commands for zsh, written by `quorbit manual zsh`.
_quorbit_applications() {
    local -a names
    names=(${(f)"$(quorbit manual applications 2>/dev/null)"})
    compadd -a names
}
_quorbit() {
    local curcontext="$curcontext" state line
    local -a commands
    commands=(
)text";
	out += commands + "    )\n    _arguments -C" + zsh_arguments(app) + " \\\n        '1: :->command' '*:: :->rest'\n";
	out += "    case $state in\n    command) _describe command commands; return ;;\n    esac\n    case $line[1] in\n";
	return out + cases + "    esac\n}\n_quorbit \"$@\"\n";
}

} // namespace quorbit
