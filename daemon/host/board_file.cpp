// Making and reading the board's file.
#include "host/board_file.h"

#include "base/files.h"
#include "host/proc_files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr int open_flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// The slots of the open file, 0 when it is no board.
uint32_t slots_of(int file, zq_board_header &header)
{
	struct stat status;
	const bool sound = fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
		pread(file, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) &&
		zq_board_is_sound(&header, static_cast<uint64_t>(status.st_size));
	return sound ? header.slots : 0;
}

// Whether the open file is the board that this header begins, for all to write who may.
bool is_as_made(int file, const zq_board_header &wanted)
{
	zq_board_header found;
	struct stat status;
	return slots_of(file, found) && memcmp(&found, &wanted, sizeof found) == 0 && fstat(file, &status) == 0 &&
		is_of_root_or_us(status) && status.st_nlink == 1 && (status.st_mode & 0777) == 0660;
}

// Agents that have it mapped look for the next.
void close_board(int file, zq_board_header header)
{
	header.version = ZQ_BOARD_CLOSED;
	(void)!pwrite(file, &header, sizeof header, 0);
}

// Whether the board that is there will do; one of another size is closed.
bool may_be_kept(const std::string &path, const zq_board_header &wanted)
{
	int file = open(path.c_str(), O_RDWR | open_flags);
	if (file == -1) return false;
	const bool kept = is_as_made(file, wanted);
	zq_board_header found;
	if (!kept && slots_of(file, found)) close_board(file, found);
	close(file);
	return kept;
}

// So many as take a thirty-second of the disk: on a small one the room is the store's.
uint32_t slots_for_disk(const std::string &path)
{
	struct statvfs disk;
	if (statvfs(path.substr(0, path.rfind('/')).c_str(), &disk) != 0) return ZQ_BOARD_MOST_SLOTS;
	const uint64_t most = uint64_t{disk.f_blocks} * disk.f_frsize / 32 / sizeof(zq_board_slot);
	return static_cast<uint32_t>(std::clamp<uint64_t>(most, 1, ZQ_BOARD_MOST_SLOTS));
}

void write_board(int file, const std::string &path, const zq_board_header &header)
{
	int failed = posix_fallocate(file, 0, static_cast<off_t>(header.size));
	if (failed == 0 && fchmod(file, 0660) != 0) failed = errno;
	if (failed == 0 && pwrite(file, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) failed = errno;
	if (failed == 0) return;
	close(file);
	unlink(path.c_str());
	errno = failed;
	throw_errno(path);
}

} // namespace

void make_board(const std::string &path, uint32_t slots)
{
	slots = std::min(slots, slots_for_disk(path));
	zq_board_header header = {};
	header.magic = ZQ_BOARD_MAGIC;
	header.version = ZQ_BOARD_VERSION;
	header.slots = slots;
	header.slot_size = sizeof(zq_board_slot);
	header.slots_at = zq_board_slots_at(slots);
	header.size = zq_board_size(slots);
	header.pid_namespace = inode_of("/proc/self/ns/pid");
	if (may_be_kept(path, header)) return;
	const std::string fresh = path + ".new";
	unlink(fresh.c_str());
	int file = open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | open_flags, 0600);
	if (file == -1) throw_errno(fresh);
	write_board(file, fresh, header);
	close(file);
	if (rename(fresh.c_str(), path.c_str()) != 0) throw_errno(path);
}

bool BoardKeeper::is_in_place() const
{
	struct stat ours, there;
	return file_ != -1 && fstat(file_, &ours) == 0 && lstat(path_.c_str(), &there) == 0 &&
		ours.st_ino == there.st_ino && ours.st_dev == there.st_dev && is_as_made(file_, header_);
}

void BoardKeeper::forget()
{
	if (file_ == -1) return;
	close(file_);
	file_ = -1;
}

bool BoardKeeper::keep()
{
	if (is_in_place()) return false;
	if (file_ != -1) close_board(file_, header_);
	forget();
	make_board(path_, slots_);
	file_ = open(path_.c_str(), O_RDWR | open_flags);
	if (file_ == -1 || !slots_of(file_, header_)) throw_errno(path_);
	return true;
}

BoardFile::BoardFile(const std::string &path, bool to_ask)
	: file_(open(path.c_str(), (to_ask ? O_RDWR : O_RDONLY) | open_flags))
{
	zq_board_header header;
	slots_ = file_ == -1 ? 0 : slots_of(file_, header);
	if (file_ == -1 || slots_) return;
	close(file_);
	file_ = -1;
	errno = EINVAL;
}

BoardFile::~BoardFile()
{
	if (file_ != -1) close(file_);
}

bool BoardFile::read(void *to, size_t length, uint64_t offset) const
{
	return pread(file_, to, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

uint64_t BoardFile::at(uint32_t number) const
{
	return zq_board_slots_at(slots_) + uint64_t{number} * sizeof(zq_board_slot);
}

std::vector<uint64_t> BoardFile::claims() const
{
	std::vector<uint64_t> claims(slots_);
	if (!read(claims.data(), claims.size() * sizeof(uint64_t), sizeof(zq_board_header))) claims.clear();
	return claims;
}

uint64_t BoardFile::owner(uint32_t number) const
{
	uint64_t owner = 0;
	return read(&owner, sizeof owner, at(number) + offsetof(zq_board_slot, owner)) ? owner : 0;
}

bool BoardFile::looks_open(uint32_t number) const
{
	uint32_t open = 0;
	return read(&open, sizeof open, at(number) + offsetof(zq_board_slot, is_open)) && open;
}

// Whether what was read is a whole state.
bool BoardFile::read_whole(uint32_t number, std::string &bytes) const
{
	uint32_t before = 1, after = 1;
	bytes.resize(sizeof(zq_board_slot));
	return read(&before, sizeof before, at(number)) && read(bytes.data(), bytes.size(), at(number)) &&
		read(&after, sizeof after, at(number)) && before == after && before % 2 == 0;
}

int64_t monotonic_us()
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

namespace {

std::optional<BoardSlot> slot_read_now(std::string_view bytes, uint64_t claim)
{
	const int64_t read_us = monotonic_us();
	auto slot = read_board_slot(bytes, claim);
	if (slot) slot->read_us = read_us;
	return slot;
}

} // namespace

std::optional<BoardSlot> BoardFile::slot(uint32_t number, uint64_t claim) const
{
	constexpr int most_tries = 20;
	constexpr auto pause = std::chrono::microseconds(50);
	std::string bytes;
	for (int i = 0; i < most_tries && !read_whole(number, bytes); i++) std::this_thread::sleep_for(pause);
	return slot_read_now(bytes, claim);
}

std::optional<BoardSlot> BoardFile::slot_if_whole(uint32_t number, uint64_t claim) const
{
	std::string bytes;
	return read_whole(number, bytes) ? slot_read_now(bytes, claim) : std::nullopt;
}

std::optional<BoardSlot> BoardFile::slot_as_left(uint32_t number, uint64_t claim) const
{
	std::string bytes(sizeof(zq_board_slot), '\0');
	return read(bytes.data(), bytes.size(), at(number)) ? slot_read_now(bytes, claim) : std::nullopt;
}

bool BoardFile::ask(uint32_t number, uint32_t asked) const
{
	const auto offset = static_cast<off_t>(at(number) + offsetof(zq_board_slot, asked));
	return pwrite(file_, &asked, sizeof asked, offset) == static_cast<ssize_t>(sizeof asked);
}

void BoardFile::free_slot(uint32_t number, uint64_t claim) const
{
	constexpr uint32_t closed = 0;
	constexpr uint64_t none = 0;
	// Nobody else takes the slot of a thread that has gone with its action open, nor changes that from here on.
	const uint64_t offset = sizeof(zq_board_header) + uint64_t{number} * sizeof none;
	uint64_t found = 0;
	if (!read(&found, sizeof found, offset) || found != claim) return;
	if (pwrite(file_, &closed, sizeof closed, static_cast<off_t>(at(number) + offsetof(zq_board_slot, is_open))) > 0)
		(void)!pwrite(file_, &none, sizeof none, static_cast<off_t>(offset));
}

bool is_gone(uint64_t claim)
{
	const auto process = static_cast<pid_t>(claim >> 32), thread = static_cast<pid_t>(claim & UINT32_MAX);
	// numbers that no thread can have are in a claim that somebody has overwritten
	return syscall(SYS_tgkill, process, thread, 0) == -1 && (errno == ESRCH || errno == EINVAL);
}

bool is_gone(const BoardSlot &slot, const std::string &proc)
{
	if (is_gone(static_cast<uint64_t>(slot.process) << 32 | static_cast<uint32_t>(slot.thread))) return true;
	if (!slot.started_ticks) return false;
	auto now = read_proc_stat(proc + "/" + std::to_string(slot.process));
	return now && now->started_ticks != slot.started_ticks;
}

} // namespace quorbit
