// Locks of open file descriptions (fcntl(2), F_OFD_SETLK): unlike the older kind they tell two users in one process
// apart, and closing another descriptor of the file does not drop them.
#include "store/order_lock.h"

#include "base/files.h"
#include "store/sqlite.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quorbit {

namespace {

struct flock byte_of(int64_t order)
{
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_whence = SEEK_SET;
	lock.l_start = order;
	lock.l_len = 1;
	return lock;
}

} // namespace

OrderLock::OrderLock(const std::string &store_path)
{
	const std::string path = store_path + "-orders";
	file_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
	if (file_ == -1) throw SqliteError(path + ": " + strerror(errno));
	struct stat status, store;
	bool plain = fstat(file_, &status) == 0 && S_ISREG(status.st_mode) && stat(store_path.c_str(), &store) == 0;
	// Made by root's command before the daemon, which may be another account, could make it.
	if (plain && status.st_uid != store.st_uid && status.st_uid == geteuid() && geteuid() == 0)
		plain = fchown(file_, store.st_uid, store.st_gid) == 0;
	else if (plain)
		plain = is_of_root_or_us(status) || status.st_uid == store.st_uid;
	if (plain) return;
	close(file_);
	throw SqliteError(path + ": belongs to another account, or is not a regular file");
}

OrderLock::~OrderLock()
{
	close(file_);
}

void OrderLock::hold(int64_t order)
{
	struct flock lock = byte_of(order);
	if (fcntl(file_, F_OFD_SETLK, &lock) != 0) throw SqliteError(std::string("order of a profile: ") + strerror(errno));
}

bool OrderLock::is_held(int64_t order) const
{
	struct flock lock = byte_of(order);
	return fcntl(file_, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

} // namespace quorbit
