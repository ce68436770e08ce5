// Releases are noted by whoever rolls them out, and not by the daemon.
#pragma once

#include "store/reader.h"

namespace quorbit {

constexpr size_t most_release_name = 100; // bytes
constexpr int64_t most_releases = 1000;   // kept, the newest

// Notes a release in the store, which this account has to be allowed to write. Throws SqliteError.
void mark_release(const std::string &store_path, const ReleaseRow &release);

} // namespace quorbit
