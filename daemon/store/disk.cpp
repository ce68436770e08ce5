// statvfs, and blocks that are allocated and never written.
#include "store/disk.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr int64_t most_left_bytes = int64_t{64} << 20, most_reserve_bytes = int64_t{16} << 20;

std::string reserve_of(const std::string &store_path)
{
	return store_path + "-reserve";
}

} // namespace

DiskSpace disk_space(const std::string &path)
{
	struct statvfs found;
	if (statvfs(path.substr(0, path.rfind('/') + 1).c_str(), &found) != 0) return {INT64_MAX, 0, 0};
	auto block = static_cast<int64_t>(found.f_frsize);
	int64_t all_bytes = static_cast<int64_t>(found.f_blocks) * block;
	return {static_cast<int64_t>(found.f_bavail) * block, std::min(most_left_bytes, all_bytes / 8),
		std::min(most_reserve_bytes, all_bytes / 5)};
}

bool make_reserve(const std::string &store_path)
{
	const std::string path = reserve_of(store_path);
	const DiskSpace space = disk_space(store_path);
	const int64_t bytes = space.reserve_bytes;
	struct stat status;
	if (lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size == bytes) return true;
	if (bytes == 0 || space.free_bytes < space.least_bytes + bytes) return false;
	unlink(path.c_str());
	int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
	if (file == -1) return false;
	// Not posix_fallocate(): where the file system cannot, there are better things to do than writing.
	bool made = fallocate(file, 0, 0, bytes) == 0;
	close(file);
	if (!made) unlink(path.c_str());
	return made;
}

bool give_up_reserve(const std::string &store_path)
{
	return unlink(reserve_of(store_path).c_str()) == 0;
}

} // namespace quorbit
