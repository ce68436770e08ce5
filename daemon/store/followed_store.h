// The store as commands read it: never in the daemon's way, and followed wherever the daemon goes on with it.
#pragma once

#include "store/sqlite.h"

#include <csignal>

namespace quorbit {

// A store that others write. Whoever reads it does so in short pages and calls current() before each.
class FollowedStore {
public:
	// Throws SqliteError when the file has another version's layout or none yet.
	FollowedStore(const std::string &path, Database::Mode mode);

	// The database. When the daemon has gone on in another file, because somebody stood still on this one or moved it
	// away, that one from now on: statements of the former one must be gone.
	Database &current();

private:
	const Database::Mode mode_;
	uint64_t inode_;
	Database database_;
};

// While it lives, Ctrl-Z and writing to a terminal from the background do not stop the process: a stop within a read
// would hold the store's write-ahead log in place for as long as it lasts.
class Unstopped {
public:
	Unstopped();
	~Unstopped();
	Unstopped(const Unstopped &) = delete;
	Unstopped &operator=(const Unstopped &) = delete;

private:
	sigset_t before_;
};

} // namespace quorbit
