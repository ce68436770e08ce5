// The disk that the store is on: whether there is room to grow, and a file that keeps some for when there is none.
#pragma once

#include <cstdint>
#include <string>

namespace quorbit {

struct DiskSpace {
	int64_t free_bytes;
	int64_t least_bytes;   // that a store leaves to others: 64 MiB, on a small disk an eighth of it
	int64_t reserve_bytes; // 16 MiB, which is more than the log holds as a rule; on a small disk a fifth of it
};

// Of the file system that the folder of `path` is on. One that does not tell has room.
DiskSpace disk_space(const std::string &path);

// The reserve beside the store ("quorbit.db-reserve"): once the disk is full SQLite can
// neither write back its log, where that makes the file larger, nor note in the log what it deletes. The reserve is
// then given up. False when there is no room for it, or none to give up.
bool make_reserve(const std::string &store_path);
bool give_up_reserve(const std::string &store_path);

} // namespace quorbit
