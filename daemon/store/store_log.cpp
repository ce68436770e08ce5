// The write-ahead log: it is written back as it grows, and where a reader stands in the way of that for too long the
// store goes on in a copy of itself.
#include "store/step_timer.h"
#include "store/store.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

constexpr int64_t checkpoint_bytes = int64_t{4} << 20;          // SQLite's own figure
constexpr int64_t confined_checkpoint_bytes = int64_t{1} << 20; // within what the log's file has taken before
constexpr int pages_at_once = 64;

bool exists(const std::string &path)
{
	return access(path.c_str(), F_OK) == 0;
}

// An empty file of the store's own mode, which somebody may have widened.
void make_copy_file(const std::string &path)
{
	const std::string fresh = path + "-new";
	unlink(fresh.c_str());
	struct stat store;
	int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
	bool made = file != -1 && stat(path.c_str(), &store) == 0 && fchmod(file, store.st_mode & 0777) == 0;
	if (file != -1) close(file);
	if (!made) throw SqliteError(fresh + ": " + strerror(errno));
}

} // namespace

void Store::watch_log()
{
	sqlite3_wal_autocheckpoint(database_.handle(), 0);
	auto note = [](void *store, sqlite3 *, const char *, int pages) {
		static_cast<Store *>(store)->log_pages_ = pages;
		return SQLITE_OK;
	};
	sqlite3_wal_hook(database_.handle(), note, this);
}

void Store::checkpoint()
{
	// As far as readers let it: what is left is not an error. Where the log cannot grow it has to begin again at its
	// front, for which the readers of the moment are waited for.
	const int mode = is_confined() ? SQLITE_CHECKPOINT_RESTART : SQLITE_CHECKPOINT_PASSIVE;
	sqlite3_wal_checkpoint_v2(database_.handle(), nullptr, mode, nullptr, nullptr);
}

void Store::checkpoint_when_due()
{
	if (!log_is_large()) small_log_at_ = Clock::now();
	if (log_pages_ * page_size_ >= (is_confined() ? confined_checkpoint_bytes : checkpoint_bytes)) checkpoint();
}

bool Store::empty_log()
{
	sqlite3_busy_timeout(database_.handle(), 0);
	int code = sqlite3_wal_checkpoint_v2(database_.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
	sqlite3_busy_timeout(database_.handle(), Database::busy_ms);
	if (code != SQLITE_OK) return false;
	log_pages_ = 0;
	small_log_at_ = Clock::now();
	copy_.reset();
	return true;
}

Store::Copy::Copy(Database &source) : target(source.path() + "-new", Database::Mode::create)
{
	// Nobody reads it before it is whole.
	target.execute("PRAGMA journal_mode = OFF; PRAGMA cache_size = 100");
	backup = sqlite3_backup_init(target.handle(), "main", source.handle(), "main");
	if (!backup) throw SqliteError(sqlite3_errmsg(target.handle()), sqlite3_errcode(target.handle()));
}

Store::Copy::~Copy()
{
	sqlite3_backup_finish(backup);
}

// What this connection writes meanwhile goes into the copy as well.
bool Store::copy_step()
{
	if (!copy_) {
		make_copy_file(database_.path());
		copy_ = std::make_unique<Copy>(database_);
	}
	const auto end = Clock::now() + step_time;
	int code;
	do code = sqlite3_backup_step(copy_->backup, pages_at_once);
	while (code == SQLITE_OK && Clock::now() < end);
	if (code == SQLITE_OK || code == SQLITE_BUSY || code == SQLITE_LOCKED) return false;
	copy_.reset();
	if (code == SQLITE_DONE) return true;
	// The disk has no room for two: patience begins again.
	small_log_at_ = Clock::now();
	throw SqliteError(std::string("copy of the store: ") + sqlite3_errstr(code), code);
}

void replace_store_by_copy(const std::string &path)
{
	// Without the name in between nobody opens one's file with the other's log.
	rename(path.c_str(), (path + "-old").c_str());
	finish_replacing(path);
}

void finish_replacing(const std::string &path)
{
	const std::string fresh = path + "-new", old = path + "-old";
	if (!exists(path)) {
		// The log of a file that is not there belongs to nothing: SQLite must not take it for a new file's.
		unlink((path + "-wal").c_str());
		unlink((path + "-shm").c_str());
		if (exists(old) && exists(fresh))
			rename(fresh.c_str(), path.c_str());
		else if (exists(old))
			rename(old.c_str(), path.c_str());
	}
	unlink(fresh.c_str());
	unlink(old.c_str());
}

} // namespace quorbit
