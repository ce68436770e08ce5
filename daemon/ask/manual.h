// What the shell and `man` are told about the commands, from the same tables that parse them.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace quorbit {

// Completion, as bash and zsh load it. Names of applications come from `quorbit manual applications`.
std::string bash_completion(const CLI::App &app);
std::string zsh_completion(const CLI::App &app);

// The page quorbit(1), in man(7)'s language.
std::string manual_page(const CLI::App &app);

// The page applications.conf(5), from the text of such a file: each paragraph of comments tells of the settings below
// it.
std::string settings_page(const std::string &settings_file);

} // namespace quorbit
