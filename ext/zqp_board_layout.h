/* The board: what every thread that runs PHP does at this moment, in one file that agents map and the daemon reads.
 * Free of the engine. docs/protocol.md has the same layout for others; what changes here changes ZQ_BOARD_VERSION.
 * Integers are in the host's byte order, times microseconds of the monotonic clock unless they say otherwise. */
#ifndef ZQP_BOARD_LAYOUT_H
#define ZQP_BOARD_LAYOUT_H

#include <cstddef>
#include <cstdint>

inline constexpr uint64_t ZQ_BOARD_MAGIC = 0x6472616f625f7a71; /* "qz_board", as bytes of a little-endian host */
inline constexpr uint32_t ZQ_BOARD_VERSION = 2;
inline constexpr uint32_t ZQ_BOARD_CLOSED = 0; /* as a version: there is a new board, or will be */
inline constexpr uint32_t ZQ_BOARD_CALLS = 32; /* a slot keeps so many of the last watched calls */
inline constexpr uint32_t ZQ_BOARD_MOST_SLOTS = 8192;
inline constexpr uint32_t ZQ_BOARD_RUNNING = UINT32_MAX; /* as a duration: the call has not returned */
#define ZQ_BOARD_FILE "board"

enum zq_board_kind : uint8_t { ZQ_BOARD_NOTHING, ZQ_BOARD_SQL, ZQ_BOARD_CACHE, ZQ_BOARD_HTTP, ZQ_BOARD_KINDS };

/* One watched call. */
struct zq_board_call {
	uint64_t begin_us;
	uint32_t duration_us; /* or ZQ_BOARD_RUNNING */
	uint8_t kind;         /* zq_board_kind */
	uint8_t length;       /* of the text */
	uint8_t is_cut;       /* there was more of it */
	uint8_t reserved;
	char text[200]; /* a statement up to its first value, an URL without its query, an operation */
};

/* What one thread does. Written by that thread alone, but for `asked`; `sequence` is odd while it writes. */
struct zq_board_slot {
	uint32_t sequence;
	uint32_t is_open;       /* 1 while an action runs */
	uint64_t owner;         /* the claim under which the thread has the slot */
	uint64_t started_ticks; /* when the process started, as field 22 of /proc/PID/stat */
	int64_t begin_ms;       /* of the action: milliseconds since 1970 */
	uint64_t begin_us;      /* the same by the monotonic clock */
	uint32_t actions;       /* so far, this one included */
	uint32_t current;       /* number of the watched call that runs; 0: none */
	uint32_t calls;         /* watched calls so far: number N is ring[(N - 1) % ZQ_BOARD_CALLS] */
	uint32_t counts[ZQ_BOARD_KINDS];
	uint32_t asked;    /* by a reader that wants PHP's stack: any number other than `answered` */
	uint32_t answered; /* the number with which `stack` was last asked for */
	uint16_t application_length, method_length, function_length, path_length, stack_length;
	uint16_t signal; /* that the process crashes with; 0: it has not */
	uint16_t action_length;
	uint16_t reserved[19];
	char application[64];
	char method[16];
	char function[112]; /* the outermost function of the script that runs now */
	char path[192];     /* of a command-line run: the script */
	zq_board_call ring[ZQ_BOARD_CALLS];
	char action[192]; /* its name, by now; names may be longer */
	char stack[2624]; /* "function file:line", one a line, the innermost first */
};

/* The file begins with this, and with the claims: one for each slot, 0 for a slot that is free, else process << 32 |
 * thread, as the kernel numbers them. The slots follow from the next page on. */
struct zq_board_header {
	uint64_t magic;
	uint32_t version;
	uint32_t slots;
	uint32_t slot_size;
	uint32_t slots_at;      /* offset of the first */
	uint64_t size;          /* of the file */
	uint64_t pid_namespace; /* inode of the daemon's /proc/self/ns/pid: agents of another one have other numbers */
	uint64_t reserved[3];
};

static_assert(sizeof(zq_board_header) == 64 && sizeof(zq_board_call) == 216 && sizeof(zq_board_slot) == 10240);
static_assert(offsetof(zq_board_slot, owner) == 8 && offsetof(zq_board_slot, begin_us) == 32 &&
	offsetof(zq_board_slot, actions) == 40 && offsetof(zq_board_slot, counts) == 52 &&
	offsetof(zq_board_slot, asked) == 68 && offsetof(zq_board_slot, application_length) == 76 &&
	offsetof(zq_board_slot, signal) == 86 && offsetof(zq_board_slot, application) == 128 &&
	offsetof(zq_board_slot, function) == 208 && offsetof(zq_board_slot, path) == 320 &&
	offsetof(zq_board_slot, ring) == 512 && offsetof(zq_board_slot, action) == 7424 &&
	offsetof(zq_board_slot, stack) == 7616);

/* Where the slots begin, and how large the file is. */
constexpr uint32_t zq_board_slots_at(uint32_t slots)
{
	return (uint32_t)(sizeof(zq_board_header) + slots * sizeof(uint64_t) + 4095) & ~4095u;
}
constexpr uint64_t zq_board_size(uint32_t slots)
{
	return zq_board_slots_at(slots) + (uint64_t)slots * sizeof(zq_board_slot);
}

/* True when the header is one that this version wrote for a file of `size` bytes. */
inline bool zq_board_is_sound(const zq_board_header *header, uint64_t size)
{
	return header->magic == ZQ_BOARD_MAGIC && header->version == ZQ_BOARD_VERSION && header->slots > 0 &&
		header->slots <= ZQ_BOARD_MOST_SLOTS && header->slot_size == sizeof(zq_board_slot) &&
		header->slots_at == zq_board_slots_at(header->slots) && header->size == zq_board_size(header->slots) &&
		header->size == size;
}

#endif
