// The reader of a fleet's store (store/fleet_layout.h).
#pragma once

#include "base/store_url.h"
#include "store/reader.h"

#include <memory>

namespace quorbit {

// Throws std::runtime_error with a message for the operator when no server answers, or it has no tables of ours.
std::unique_ptr<Reader> open_clickhouse_reader(const StoreUrl &url);

} // namespace quorbit
