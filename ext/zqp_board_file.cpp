/* The board's mapping: found and checked, shared by the threads of the process, left for a new one. The file is one
 * that others may write and cut short; a page that is gone becomes one of our own, so that nobody can end this process
 * by it. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>

#include "zqp_board_file.h"
#include "zqp_debug.h"
#include "zqp_lock.h"
#include "zqprof_settings.h"

static const int64_t LOOK_S = 1; /* between looks for a board */

zq_board_mapping zq_board_mappings[ZQ_BOARD_MAPPINGS];
static zq_board_mapping *g_board; /* the present one; null: there is none */

/* Of the process whose zq_process_number() is one less; read while a thread has a slot, written before that. */
static struct {
	uint64 started_ticks;
	unsigned number;
} g_process;
static int g_has_guard; /* the handler of SIGBUS has been set, once */
static struct sigaction g_earlier_handler;
static int64_t g_looked_s; /* when the board was last looked for; 0: it is due */

/* The first fault that this process meets; logged by zq_board_tell(), since nothing is logged under the lock. */
enum { FAULT_NONE, FAULT_BEING_NOTED, FAULT_NOTED, FAULT_TOLD };
static struct {
	int state;
	char text[512];
} g_fault;

__attribute__((format(printf, 1, 2))) void zq_board_note(const char *format, ...)
{
	int none = FAULT_NONE;
	va_list args;
	if (!__atomic_compare_exchange_n(
			&g_fault.state, &none, FAULT_BEING_NOTED, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
		return;
	}
	va_start(args, format);
	vsnprintf(g_fault.text, sizeof(g_fault.text), format, args);
	va_end(args);
	__atomic_store_n(&g_fault.state, FAULT_NOTED, __ATOMIC_RELEASE);
}

void zq_board_tell(void)
{
	int noted = FAULT_NOTED;
	if (__atomic_compare_exchange_n(&g_fault.state, &noted, FAULT_TOLD, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
		ZQ_LOG(ZQ_LOG_WARNING, "%s", g_fault.text);
	}
}

/* ---- a file that is cut short ---- */

static zq_board_mapping *mapping_of(const siginfo_t *info)
{
	const char *address = (const char *)info->si_addr;
	for (zq_board_mapping &board : zq_board_mappings) {
		if (info->si_code == BUS_ADRERR && board.at && address >= board.at && address < board.at + board.size) {
			return &board;
		}
	}
	return NULL;
}

static void hand_on(int signal_number, siginfo_t *info, void *context)
{
	if (g_earlier_handler.sa_flags & SA_SIGINFO) {
		g_earlier_handler.sa_sigaction(signal_number, info, context);
	} else if (g_earlier_handler.sa_handler != SIG_DFL && g_earlier_handler.sa_handler != SIG_IGN) {
		g_earlier_handler.sa_handler(signal_number);
	} else if (g_earlier_handler.sa_handler == SIG_DFL || info->si_code > 0) { /* nobody can ignore a fault */
		signal(SIGBUS, SIG_DFL);
		raise(SIGBUS);
	}
}

/* Puts memory of our own in the board's place and lets the instruction run again. Async-signal-safe. */
static void on_bus_error(int signal_number, siginfo_t *info, void *context)
{
	int saved_errno = errno;
	zq_board_mapping *board = mapping_of(info);
	if (board &&
		mmap(board->at, board->size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE,
			-1, 0) != MAP_FAILED) {
		board->is_lost = 1;
	} else {
		hand_on(signal_number, info, context);
	}
	errno = saved_errno;
}

bool zq_board_is_safe(void)
{
	struct sigaction now;
	return !g_has_guard ||
		(sigaction(SIGBUS, NULL, &now) == 0 && (now.sa_flags & SA_SIGINFO) && now.sa_sigaction == on_bus_error);
}

/* Once per process: a host that then puts its own in our place wants that. */
static void guard_boards(void)
{
	struct sigaction ours = {};
	ours.sa_sigaction = on_bus_error;
	ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
	g_has_guard = sigaction(SIGBUS, &ours, &g_earlier_handler) == 0;
}

/* ---- finding it ---- */

static uint64 inode_of(const char *path)
{
	struct stat status;
	return stat(path, &status) == 0 ? status.st_ino : 0;
}

/* What is wrong with the open file; null: nothing. `folder` is its folder's path. */
static const char *fault_of(int fd, const char *folder, zq_board_header *header, ino_t *inode)
{
	struct stat status, around;
	if (fstat(fd, &status) == -1 || stat(folder, &around) == -1 || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
		return "is no file of the daemon's";
	}
	if (status.st_uid != 0 && status.st_uid != around.st_uid) {
		return "belongs to another account than its folder";
	}
	*inode = status.st_ino;
	if (pread(fd, header, sizeof(*header), 0) != (ssize_t)sizeof(*header) ||
		!zq_board_is_sound(header, (uint64)status.st_size)) {
		return "is not of this version";
	}
	return header->pid_namespace == inode_of("/proc/self/ns/pid") ? NULL : "is of another namespace of processes";
}

/* Field 22 of /proc/self/stat; 0 when it cannot be read. */
static uint64 process_start(void)
{
	char text[1024];
	int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
	ssize_t len = fd == -1 ? -1 : read(fd, text, sizeof(text) - 1);
	if (fd != -1) {
		close(fd);
	}
	text[len > 0 ? len : 0] = '\0';
	const char *at = strrchr(text, ')'); /* the name before it may hold anything; field 2 */
	for (int field = 2; at && field < 22; field++) {
		at = strchr(at + 1, ' ');
	}
	uint64 ticks = 0;
	if (at) {
		std::from_chars(at + 1, text + len, ticks);
	}
	return ticks;
}

/* The open file of a board that is sound, -1 when there is none. */
static int open_board(zq_board_header *header, ino_t *inode)
{
	char path[255], folder[255];
	if (zq_runtime_path(path, sizeof(path), ZQ_BOARD_FILE) >= (int)sizeof(path)) {
		return -1;
	}
	int fd = open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
	if (fd == -1) {
		if (errno != ENOENT) {
			zq_board_note("the board %s cannot be opened: %s", path, strerror(errno));
		}
		return -1;
	}
	zq_runtime_path(folder, sizeof(folder), ".");
	const char *fault = fault_of(fd, folder, header, inode);
	if (fault) {
		zq_board_note("the board %s %s", path, fault);
		close(fd);
		return -1;
	}
	return fd;
}

/* Null when there is no board, or all places are taken by earlier ones. Under the process lock, as what follows. */
static zq_board_mapping *map_board(void)
{
	zq_board_header header;
	zq_board_mapping *place = std::find_if(std::begin(zq_board_mappings), std::end(zq_board_mappings),
		[](const zq_board_mapping &board) { return !board.at; });
	int fd = place != std::end(zq_board_mappings) ? open_board(&header, &place->inode) : -1;
	if (fd == -1) {
		return NULL;
	}
	void *at = mmap(NULL, header.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
	close(fd);
	if (at == MAP_FAILED) {
		return NULL;
	}
	if (!g_has_guard) {
		guard_boards();
	}
	place->size = header.size;
	place->users = 0;
	place->is_lost = 0;
	place->checked_s = 0;
	place->at = (char *)at;
	return place;
}

static void unmap_unless_used(zq_board_mapping *board)
{
	if (board != g_board && board->users == 0) {
		void *at = board->at;
		board->at = NULL;
		munmap(at, board->size);
	}
}

static bool is_in_place(const zq_board_mapping *board)
{
	char path[255];
	return zq_runtime_path(path, sizeof(path), ZQ_BOARD_FILE) < (int)sizeof(path) && inode_of(path) == board->inode;
}

bool zq_board_is_good(zq_board_mapping *board, int64_t now_s)
{
	const zq_board_header *header = (const zq_board_header *)board->at;
	if (std::atomic_ref<int64_t>(board->checked_s).exchange(now_s) != now_s && !is_in_place(board)) {
		board->is_lost = 1;
	}
	if (zq_board_is_sound(header, board->size) && !board->is_lost) {
		return true;
	}
	if (header->magic != ZQ_BOARD_MAGIC || header->version != ZQ_BOARD_CLOSED) {
		zq_board_note("the board has been removed, cut short or overwritten: it is not used until there is a new one");
	}
	return false;
}

zq_board_mapping *zq_board_use(int64_t now_s)
{
	sigset_t saved;
	zq_lock(&saved);
	if (g_board && !zq_board_is_good(g_board, now_s)) {
		zq_board_mapping *former = g_board;
		g_board = NULL;
		g_looked_s = 0;
		unmap_unless_used(former);
	}
	if (!g_board && (!g_looked_s || now_s - g_looked_s >= LOOK_S)) {
		g_looked_s = now_s;
		g_board = map_board();
	}
	if (g_board) {
		g_board->users++;
	}
	if (g_process.number != zq_process_number() + 1) {
		g_process.number = zq_process_number() + 1;
		g_process.started_ticks = process_start();
	}
	zq_board_mapping *board = g_board;
	zq_unlock(&saved);
	return board;
}

void zq_board_stop_using(zq_board_mapping *board)
{
	sigset_t saved;
	zq_lock(&saved);
	board->users--;
	unmap_unless_used(board);
	zq_unlock(&saved);
}

void zq_board_use_none(void)
{
	for (zq_board_mapping &board : zq_board_mappings) {
		board.users = 0;
		if (board.at) {
			unmap_unless_used(&board);
		}
	}
}

uint64 zq_board_process_start(void)
{
	return g_process.started_ticks;
}
