// Reading files that others may have put there.
#pragma once

#include <string>
#include <sys/stat.h>

namespace quorbit {

// The whole of a file. Throws std::runtime_error when it cannot be read, is larger than 64 MiB or, where that is asked
// for, belongs to another than root or this process's user.
std::string read_file(const std::string &path, bool of_root_or_us = false);

// Whether only root and this process's user can have made the file: the folder may be writable for others.
bool is_of_root_or_us(const struct stat &status);

} // namespace quorbit
