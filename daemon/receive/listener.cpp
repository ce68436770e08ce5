// Binding, renewing and removing the daemon's socket.
#include "receive/listener.h"

#include "base/files.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace quorbit {

namespace {

struct sockaddr_un socket_address(const std::string &path)
{
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	if (path.size() >= sizeof address.sun_path) {
		errno = ENAMETOOLONG;
		throw_errno(path);
	}
	memcpy(address.sun_path, path.data(), path.size());
	return address;
}

int new_socket()
{
	int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (descriptor == -1) throw_errno("socket");
	return descriptor;
}

} // namespace

Listener::Listener(std::string path) : path_(std::move(path))
{
	listen_at_path();
}

Listener::~Listener()
{
	if (name_is_ours()) unlink(path_.c_str());
	close(descriptor_);
}

void Listener::listen_at_path()
{
	struct sockaddr_un address = socket_address(path_);
	struct stat old;
	if (lstat(path_.c_str(), &old) == 0) {
		if (!S_ISSOCK(old.st_mode)) throw std::runtime_error(path_ + ": exists and is not a socket");
		if (unlink(path_.c_str()) != 0) throw_errno(path_);
	}
	int descriptor = new_socket();
	// The mode comes from the umask, not from chmod(): the folder's group could put a link in the socket's place in
	// between.
	mode_t mask = umask(0111);
	bool bound = bind(descriptor, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
	int bind_error = errno;
	umask(mask);
	struct stat status;
	if (!bound || listen(descriptor, SOMAXCONN) != 0 || lstat(path_.c_str(), &status) != 0) {
		if (!bound) errno = bind_error;
		int error = errno;
		close(descriptor);
		errno = error;
		throw_errno(path_);
	}
	if (descriptor_ != -1) close(descriptor_);
	descriptor_ = descriptor;
	inode_ = status.st_ino;
}

bool Listener::name_is_ours() const
{
	struct stat status;
	return lstat(path_.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && status.st_ino == inode_;
}

bool Listener::keep_name()
{
	if (name_is_ours()) return true;
	struct stat status;
	if (lstat(path_.c_str(), &status) == 0 || errno != ENOENT) return false;
	try {
		listen_at_path();
		return true;
	} catch (const std::runtime_error &) {
		return false;
	}
}

bool accepts_connections(const std::string &path)
{
	struct sockaddr_un address = socket_address(path);
	int descriptor = new_socket();
	// EAGAIN: it listens, but its queue is full.
	bool accepts =
		connect(descriptor, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0 || errno == EAGAIN;
	close(descriptor);
	return accepts;
}

} // namespace quorbit
