// Reading complete files, and telling whose they are.
#include "base/files.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

// The target of a link that nobody but root or us can have made; "" otherwise.
std::string trusted_target(const std::string &path)
{
	int link = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
	if (link == -1) return {};
	struct stat status;
	char target[4096];
	ssize_t length = -1;
	if (fstat(link, &status) == 0 && is_of_root_or_us(status)) {
		length = readlinkat(link, "", target, sizeof target);
	}
	close(link);
	if (length <= 0) return {};
	std::string to(target, static_cast<size_t>(length));
	return to[0] == '/' ? to : path.substr(0, path.rfind('/') + 1) + to;
}

// A second name may be another account's for a file that it cannot read.
bool is_trusted(const struct stat &status)
{
	return S_ISREG(status.st_mode) && status.st_nlink == 1 && is_of_root_or_us(status);
}

} // namespace

int open_trusted(const std::string &path, int flags, mode_t mode)
{
	flags |= O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
	int file = open(path.c_str(), flags, mode);
	if (file != -1 || errno != ELOOP) return file;
	std::string target = trusted_target(path);
	errno = ELOOP;
	return target.empty() ? -1 : open(target.c_str(), flags, mode);
}

std::string read_file(const std::string &path, bool of_root_or_us)
{
	constexpr size_t most = size_t{64} << 20;
	int descriptor = of_root_or_us ? open_trusted(path, O_RDONLY) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
	std::unique_ptr<FILE, int (*)(FILE *)> file(descriptor == -1 ? nullptr : fdopen(descriptor, "r"), fclose);
	struct stat status;
	if (!file || fstat(descriptor, &status) != 0) throw_errno(path);
	if (of_root_or_us && !is_trusted(status))
		throw std::runtime_error(path + ": belongs to another account, or is not a regular file with a single name");
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

uint64_t inode_of(const std::string &path)
{
	struct stat status;
	return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

void throw_errno(const std::string &what)
{
	throw std::system_error(errno, std::generic_category(), what);
}

} // namespace quorbit
