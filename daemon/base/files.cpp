// Reading files whole, and telling whose they are.
#include "base/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace quorbit {

std::string read_file(const std::string &path, bool of_root_or_us)
{
	constexpr size_t most = size_t{64} << 20;
	// A pipe that another account has put there would wait for ever.
	int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | (of_root_or_us ? O_NONBLOCK : 0));
	std::unique_ptr<FILE, int (*)(FILE *)> file(descriptor == -1 ? nullptr : fdopen(descriptor, "r"), fclose);
	struct stat status;
	if (!file || fstat(descriptor, &status) != 0) throw std::runtime_error(path + ": " + strerror(errno));
	if (of_root_or_us && !is_of_root_or_us(status)) throw std::runtime_error(path + ": belongs to another account");
	std::string text;
	char block[16384];
	while (size_t count = fread(block, 1, sizeof block, file.get())) {
		text.append(block, count);
		if (text.size() > most) throw std::runtime_error(path + ": too large");
	}
	// A folder opens, but does not read.
	if (ferror(file.get())) throw std::runtime_error(path + ": cannot be read");
	return text;
}

bool is_of_root_or_us(const struct stat &status)
{
	return status.st_uid == 0 || status.st_uid == geteuid();
}

} // namespace quorbit
