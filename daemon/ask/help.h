// The text of --help: what an option takes in one word, and no line longer than a terminal.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace quorbit {

// What follows an option: " newest|duration", " NUMBER"; "" for a flag.
std::string value_word(const CLI::Option &option);
// What it is for, and what holds without it.
std::string purpose_of(const CLI::Option &option);

class HelpFormatter : public CLI::Formatter {
public:
	HelpFormatter();
	std::string make_option(const CLI::Option *option, bool positional) const override;
	std::string make_subcommand(const CLI::App *command) const override;
};

} // namespace quorbit
