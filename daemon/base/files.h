// Files that others may have put there.
#pragma once

#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace quorbit {

// All of a file. Throws std::system_error when it cannot be opened, std::runtime_error when it cannot be read, is
// larger than 64 MiB or, where that is asked for, may be another account's doing: see open_trusted(); then it also has
// to be a regular file with a single name that belongs to root or this process's user.
std::string read_file(const std::string &path, bool of_root_or_us = false);

// open() in a folder that may be writable for others: it does not wait for a pipe, and follows a link only when the
// link is root's or this process's user's. -1 and errno as open() has them.
int open_trusted(const std::string &path, int flags, mode_t mode = 0);

// Whether only root and this process's user can have made the file.
bool is_of_root_or_us(const struct stat &status);

// The file's inode, 0 when there is none.
uint64_t inode_of(const std::string &path);

// Throws std::system_error with what errno says of `what`, a path or a system call.
[[noreturn]] void throw_errno(const std::string &what);

} // namespace quorbit
