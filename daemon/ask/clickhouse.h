// quorbit clickhouse.
#pragma once

#include "ask/command.h"

namespace quorbit {

CommandRun add_clickhouse(CLI::App &command);

} // namespace quorbit
