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

void add_host(CLI::App &command, std::string &host)
{
	command.add_option("--host", host, "only this host's, of a fleet's store")->type_name("HOST");
}

void require_host(Reader &store, const std::string &name)
{
	if (name.empty()) return;
	std::string names;
	for (const std::string &known : store.hosts()) {
		if (known == name) return;
		names += (names.empty() ? "" : ", ") + known;
	}
	throw std::runtime_error(
		"the store has nothing of a host \"" + name + "\"; it has: " + (names.empty() ? "nothing yet" : names));
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

std::string check_moment(const std::string &text)
{
	if (parse_moment(text, wall_clock_ms())) return {};
	return "expected a time such as 15m, 2h or 7d (ago), or 2026-11-21T10:00";
}

std::string check_duration(const std::string &text)
{
	return parse_duration_us(text) ? std::string() : "expected a duration such as 500ms or 1.5s";
}

TimeRange RangeOptions::range(int64_t now_wall_ms) const
{
	const TimeRange range{since.empty() ? 0 : *parse_moment(since, now_wall_ms), *parse_moment(until, now_wall_ms)};
	if (range.from_ms >= range.until_ms) throw std::runtime_error("--since is not before --until");
	return range;
}

void add_range(CLI::App &command, RangeOptions &options, const char *since)
{
	options.since = since;
	auto *option =
		command.add_option("--since", options.since, "from this time on: 15m, 2h or 7d ago, or 2026-11-21T10:00");
	option->check(check_moment);
	if (*since) option->capture_default_str();
	command.add_option("--until", options.until, "up to this time")->check(check_moment)->capture_default_str();
}

} // namespace quorbit
