// The socket that agents connect to, and its name in the file system.
#pragma once

#include <string>
#include <sys/types.h>

namespace quorbit {

class Listener {
public:
	// Listens at the path with mode 0666, in place of a socket that no daemon serves any more: who may connect is
	// decided by the folder. Throws std::runtime_error.
	explicit Listener(std::string path);
	// Removes the name when it is still this socket's.
	~Listener();
	Listener(const Listener &) = delete;
	Listener &operator=(const Listener &) = delete;

	int descriptor() const { return descriptor_; }

	// Makes sure that agents still find this socket: one whose name was deleted gets it again, under a new descriptor.
	// False when the name belongs to another by now, or cannot be taken again (the folder is gone).
	bool keep_name();

private:
	void listen_at_path();
	bool name_is_ours() const;

	std::string path_;
	int descriptor_ = -1;
	ino_t inode_ = 0;
};

// Whether something accepts connections at the path. Throws std::runtime_error for a path that is too long for a
// socket.
bool accepts_connections(const std::string &path);

} // namespace quorbit
