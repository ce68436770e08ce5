// The reader of the daemon's own store. Everything comes straight from the file; the daemon need not run.
#pragma once

#include "store/reader.h"

#include <memory>

namespace quorbit {

// Throws std::runtime_error when the file has another version's layout or none yet.
std::unique_ptr<Reader> open_sqlite_reader(const std::string &path);

} // namespace quorbit
