// Opening, following, and reading without being stopped.
#include "store/followed_store.h"

#include "base/files.h"
#include "store/layout.h"

#include <sys/stat.h>
#include <utility>

namespace quorbit {

FollowedStore::FollowedStore(const std::string &path, Database::Mode mode)
	: mode_(mode), inode_(inode_of(path)), database_(path, mode)
{
	require_newest_layout(database_);
}

Database &FollowedStore::current()
{
	const std::string path = database_.path();
	uint64_t inode = inode_of(path);
	if (inode == 0 || inode == inode_) return database_;
	try {
		Database fresh(path, mode_);
		require_newest_layout(fresh);
		database_ = std::move(fresh);
		inode_ = inode;
	} catch (const SqliteError &) {
		// Not made yet, or broken too: what is open can still be read.
	}
	return database_;
}

Unstopped::Unstopped()
{
	sigset_t stops;
	sigemptyset(&stops);
	for (int signal : {SIGTSTP, SIGTTIN, SIGTTOU}) sigaddset(&stops, signal);
	pthread_sigmask(SIG_BLOCK, &stops, &before_);
}

Unstopped::~Unstopped()
{
	pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

} // namespace quorbit
