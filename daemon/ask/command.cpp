// What options of several commands share.
#include "ask/command.h"

#include "base/clock.h"

#include <stdexcept>

namespace quorbit {

void require_application(Reader &store, const std::string &name)
{
	if (name.empty()) return;
	constexpr size_t most_told = 20;
	auto known = store.applications();
	std::string names;
	for (size_t i = 0; i < known.size(); i++) {
		if (known[i].name == name) return;
		if (i < most_told) names += (i ? ", " : "") + known[i].name;
	}
	if (known.size() > most_told) names += " and " + std::to_string(known.size() - most_told) + " more";
	// The list keeps those seen last, actions may be older.
	ActionQuestion any;
	any.filter.application = name;
	any.most = 1;
	if (!store.actions(any).empty()) return;
	throw std::runtime_error(
		"there is no application \"" + name + "\"; known: " + (names.empty() ? "none yet" : names));
}

void set_examples(CLI::App &command, std::initializer_list<Example> examples)
{
	std::string text = "Examples:";
	for (const Example &example : examples)
		text.append("\n  ").append(example.line).append("\n      ").append(example.what);
	command.footer(text);
}

std::string check_seconds(const std::string &text)
{
	return parse_seconds(text) ? std::string() : "expected a time such as 90s, 15m, 2h or 7d";
}

} // namespace quorbit
