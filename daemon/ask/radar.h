// quorbit radar: what stands in the way of another version of PHP.
#pragma once

#include "ask/command.h"

namespace quorbit {

// As the commands of ask/command.h.
CommandRun add_radar(CLI::App &command);

} // namespace quorbit
