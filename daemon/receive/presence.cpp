// Locking, and the pid file.
#include "receive/presence.h"

#include "base/files.h"
#include "receive/listener.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

// The descriptor that holds the lock, or -1 when another process has it. The file stays: removing it would let two
// daemons lock files of the same name. Nobody else can open it: whoever can read a file can lock it.
int take_lock(const std::string &path)
{
	constexpr mode_t ours_alone = 0600;
	int descriptor = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, ours_alone);
	if (descriptor == -1) throw_errno(path);
	struct stat status;
	if (fstat(descriptor, &status) == 0 && status.st_uid == geteuid()) fchmod(descriptor, ours_alone);
	if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return descriptor;
	if (errno != EWOULDBLOCK) throw_errno(path);
	close(descriptor);
	return -1;
}

// Who holds the lock, as /proc/locks tells it: "process 123", or "another process".
std::string lock_holder(const std::string &path)
{
	struct stat status;
	std::ifstream locks("/proc/locks");
	if (stat(path.c_str(), &status) != 0) return "another process";
	const std::string inode = ":" + std::to_string(status.st_ino);
	for (std::string line; std::getline(locks, line);) {
		// "1: FLOCK  ADVISORY  WRITE 123 08:01:4567 0 EOF"; one that waits has "->" after the number.
		std::istringstream fields(line);
		std::string number, kind, advisory, access, process, file;
		fields >> number >> kind >> advisory >> access >> process >> file;
		if (kind == "FLOCK" && file.ends_with(inode)) return "process " + process;
	}
	return "another process";
}

// Written beside and renamed, so that nobody ever reads half a number or follows a link.
void write_pid_file(const DaemonConfig &config)
{
	std::string fresh = config.fresh_pid_file(), text = std::to_string(getpid()) + "\n";
	unlink(fresh.c_str());
	int descriptor = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
	if (descriptor == -1) throw_errno(fresh);
	bool written = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
	close(descriptor);
	if (!written || rename(fresh.c_str(), config.pid_file.c_str()) != 0) throw_errno(config.pid_file);
}

// Whether the file of that name is the one that is open.
bool is_named(int descriptor, const std::string &path)
{
	struct stat open, named;
	return fstat(descriptor, &open) == 0 && lstat(path.c_str(), &named) == 0 && open.st_ino == named.st_ino &&
		open.st_dev == named.st_dev;
}

} // namespace

Presence::Presence(const DaemonConfig &config) : config_(config)
{
	constexpr int tries = 50;
	constexpr useconds_t between_us = 20000;
	for (int i = 0; i < tries; i++) {
		// A daemon that holds no lock of ours may be another user's, or another program that agents are content with.
		if (accepts_connections(config.socket_file)) return;
		lock_ = take_lock(config.lock_file());
		if (lock_ != -1) return;
		usleep(between_us);
	}
	throw std::runtime_error(config.lock_file() + " is locked by " + lock_holder(config.lock_file()) +
		", and nobody answers on " + config.socket_file);
}

bool Presence::keep()
{
	if (!is_named(lock_, config_.lock_file())) {
		int lock = take_lock(config_.lock_file());
		if (lock == -1) return false;
		close(lock_);
		lock_ = lock;
	}
	if (process_in(config_.pid_file) != getpid()) write_pid_file(config_);
	return true;
}

void Presence::withdraw() const
{
	if (process_in(config_.pid_file) == getpid()) unlink(config_.pid_file.c_str());
}

int process_in(const std::string &pid_file)
{
	// Another account may have put a pipe there, which would be waited for.
	int file = open(pid_file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
	if (file == -1) return 0;
	char text[32];
	ssize_t length = read(file, text, sizeof text - 1);
	close(file);
	return length > 0 ? atoi(std::string(text, static_cast<size_t>(length)).c_str()) : 0;
}

} // namespace quorbit
