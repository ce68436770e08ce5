// The one place that knows which store answers.
#pragma once

#include "base/config.h"
#include "store/reader.h"

#include <memory>

namespace quorbit {

// Whether anything has been stored yet.
bool has_store(const DaemonConfig &config);

// Throws std::runtime_error with a message for the operator when there is no store, or none that can be read.
std::unique_ptr<Reader> open_reader(const DaemonConfig &config);

} // namespace quorbit
