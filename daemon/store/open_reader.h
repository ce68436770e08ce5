// The one place that knows which store answers.
#pragma once

#include "base/config.h"
#include "store/reader.h"

#include <memory>

namespace quorbit {

// Whether anything has been stored yet; a fleet's store that is asked for always is.
bool has_store(const DaemonConfig &config);

// Why this account may not look into the folder or the store, and who may; nothing when it may, or when there is none.
std::optional<std::string> access_refusal(const DaemonConfig &config);

// Throws std::runtime_error with a message for the operator when there is no store, or none that can be read.
std::unique_ptr<Reader> open_reader(const DaemonConfig &config);

} // namespace quorbit
