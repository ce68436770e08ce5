// What stands in the way of later versions of PHP in the sample's applications.
#pragma once

#include <cstdint>
#include <string>

namespace quorbit {

// Adds it to the store of that file, as processes would have told it in the last 60 days. Throws SqliteError.
void add_sample_radar(const std::string &store_path, int64_t now_ms);

} // namespace quorbit
