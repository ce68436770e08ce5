// The board's file: made by the daemon, written by agents, read by whoever may. It is read and not mapped: nobody who
// cuts it short can end a reader.
#pragma once

#include "base/config.h"
#include "host/board_slot.h"

#include <string>
#include <utility>
#include <vector>

namespace quorbit {

// Microseconds of CLOCK_MONOTONIC, by which agents write.
int64_t monotonic_us();

// Its path in the daemon's folder.
inline std::string board_file(const DaemonConfig &config)
{
	return config.folder() + "/" ZQ_BOARD_FILE;
}

// Makes the board with so many slots, or fewer on a small disk, of which it takes a thirty-second at most; or keeps the
// one that is there when it is such a board and root's or ours; it takes the place of anything else. All of it is
// allocated at once. Throws std::system_error when it cannot be made.
void make_board(const std::string &path, uint32_t slots);

// The daemon's board, which is there again whatever somebody does to its file. One thread at a time.
class BoardKeeper {
public:
	BoardKeeper(std::string path, uint32_t slots) : path_(std::move(path)), slots_(slots) {}
	~BoardKeeper() { forget(); }
	BoardKeeper(const BoardKeeper &) = delete;
	BoardKeeper &operator=(const BoardKeeper &) = delete;

	const std::string &path() const { return path_; }
	// Makes the board when the one that was made before is not there as it was, and tells the agents that write on that
	// to look for the new one. True when it had to, as the first time. Throws as make_board().
	bool keep();

private:
	bool is_in_place() const;
	void forget();

	std::string path_;
	uint32_t slots_;
	int file_ = -1;
	zq_board_header header_ = {};
};

class BoardFile {
public:
	// Of a file that is a board; any other has no slots. `to_ask`: for ask() and free_slot() as well.
	explicit BoardFile(const std::string &path, bool to_ask = false);
	~BoardFile();
	BoardFile(const BoardFile &) = delete;
	BoardFile &operator=(const BoardFile &) = delete;

	bool is_open() const { return file_ != -1; }
	uint32_t slots() const { return slots_; }

	// By slot: 0 for one that is free.
	std::vector<uint64_t> claims() const;
	// A whole state of the slot, waited for up to a millisecond; of one that is being written for longer, the state
	// that it is in. Nothing when it is not of this claim.
	std::optional<BoardSlot> slot(uint32_t number, uint64_t claim) const;
	// Without waiting: nothing as well when the slot is being written.
	std::optional<BoardSlot> slot_if_whole(uint32_t number, uint64_t claim) const;
	// As a thread that has gone has left it, be that in the middle of writing.
	std::optional<BoardSlot> slot_as_left(uint32_t number, uint64_t claim) const;
	// The claim that the slot itself has: its thread writes it there as soon as it has taken the slot.
	uint64_t owner(uint32_t number) const;
	// Whether an action is open in the slot, without reading all of it.
	bool looks_open(uint32_t number) const;

	// Asks the slot's thread for PHP's stack: `answered` becomes this number. False when the file may not be written.
	bool ask(uint32_t number, uint32_t asked) const;
	// Frees the slot of a thread that has gone, or of none.
	void free_slot(uint32_t number, uint64_t claim) const;

private:
	uint64_t at(uint32_t number) const;
	bool read(void *to, size_t length, uint64_t offset) const;
	bool read_whole(uint32_t number, std::string &bytes) const;

	int file_ = -1;
	uint32_t slots_ = 0;
};

// Whether the slot's thread is there no more, by the kernel: of another process that has got the same number, too.
// `proc` is "/proc", or a tree like it.
bool is_gone(const BoardSlot &slot, const std::string &proc);
// The same by the claim alone: nobody has these numbers any more.
bool is_gone(uint64_t claim);

} // namespace quorbit
