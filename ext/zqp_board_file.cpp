/* The board's mapping: found and checked once per process, a slot for each thread. The file is one that others may
 * write and cut short; a page that is gone becomes one of our own, so that nobody can end this process by it. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>

#include "zqp_board.h"
#include "zqp_debug.h"
#include "zqp_lock.h"
#include "zqprof_settings.h"

static const int64_t RETRY_S = 60;

/* Behind the process lock until `at` is set, and never changed again. */
static struct {
	char *at;
	size_t size;
	uint64 started_ticks; /* of the process that has the number `process` */
	unsigned process;
} g_board;
static volatile sig_atomic_t g_board_is_lost; /* it has been cut short */
static struct sigaction g_earlier_handler;
static int64_t g_tried_s; /* when the board was last looked for, or for a free slot; 0: never */
static int g_told;        /* that something is amiss */

__attribute__((format(printf, 1, 2))) static void tell_once(const char *format, ...)
{
	char text[512];
	va_list args;
	if (__atomic_exchange_n(&g_told, 1, __ATOMIC_ACQ_REL)) {
		return;
	}
	va_start(args, format);
	vsnprintf(text, sizeof(text), format, args);
	va_end(args);
	ZQ_LOG(ZQ_LOG_WARNING, "%s", text);
}

/* ---- a file that is cut short ---- */

static bool is_in_board(const siginfo_t *info)
{
	const char *address = (const char *)info->si_addr;
	return info->si_code == BUS_ADRERR && address >= g_board.at && address < g_board.at + g_board.size;
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
	if (is_in_board(info) &&
		mmap(g_board.at, g_board.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE,
			-1, 0) != MAP_FAILED) {
		g_board_is_lost = 1;
	} else {
		hand_on(signal_number, info, context);
	}
	errno = saved_errno;
}

static bool guard_board(void)
{
	struct sigaction ours = {};
	ours.sa_sigaction = on_bus_error;
	ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
	return sigaction(SIGBUS, &ours, &g_earlier_handler) == 0;
}

/* A host that has put its own handler in the place of ours must not meet faults of our making. */
static bool is_guarded(void)
{
	struct sigaction now;
	return sigaction(SIGBUS, NULL, &now) == 0 && (now.sa_flags & SA_SIGINFO) && now.sa_sigaction == on_bus_error;
}

/* ---- finding it ---- */

static uint64 inode_of(const char *path)
{
	struct stat status;
	return stat(path, &status) == 0 ? status.st_ino : 0;
}

/* What is wrong with the open file; null: nothing. `folder` is its folder's path. */
static const char *fault_of(int fd, const char *folder, zq_board_header *header)
{
	struct stat status, around;
	if (fstat(fd, &status) == -1 || stat(folder, &around) == -1 || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
		return "is no file of the daemon's";
	}
	if (status.st_uid != 0 && status.st_uid != around.st_uid) {
		return "belongs to another account than its folder";
	}
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

/* Under the process lock. */
static void map_board(void)
{
	char path[255];
	zq_board_header header;
	if (zq_runtime_path(path, sizeof(path), ZQ_BOARD_FILE) >= (int)sizeof(path)) {
		return;
	}
	int fd = open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
	if (fd == -1) {
		if (errno != ENOENT) {
			tell_once("the board %s cannot be opened: %s", path, strerror(errno));
		}
		return;
	}
	char folder[255];
	zq_runtime_path(folder, sizeof(folder), ".");
	const char *fault = fault_of(fd, folder, &header);
	void *at = fault ? MAP_FAILED : mmap(NULL, header.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
	close(fd);
	if (fault) {
		tell_once("the board %s %s", path, fault);
		return;
	}
	if (at == MAP_FAILED) {
		return;
	}
	g_board.size = header.size;
	g_board.at = (char *)at;
	if (!guard_board()) {
		munmap(at, header.size);
		g_board.at = NULL;
	}
}

/* ---- slots ---- */

static uint32_t slot_count(void)
{
	/* from the size, which we have checked, and not from the header, which anybody may have changed since */
	return (uint32_t)((g_board.size - sizeof(zq_board_header)) / (sizeof(zq_board_slot) + sizeof(uint64_t)));
}

static zq_board_slot *slot_at(uint32_t number)
{
	return (zq_board_slot *)(g_board.at + zq_board_slots_at(slot_count())) + number;
}

static std::atomic_ref<uint64_t> claim_at(uint32_t number)
{
	return std::atomic_ref<uint64_t>(((uint64_t *)(g_board.at + sizeof(zq_board_header)))[number]);
}

static bool is_gone(uint64_t claim)
{
	return syscall(SYS_tgkill, (pid_t)(claim >> 32), (pid_t)claim, 0) == -1 && errno == ESRCH;
}

/* Of a thread that has gone with its action open, the daemon makes a report first: such a slot is its to free. */
static bool take(uint32_t number, uint64_t claim, bool from_the_dead)
{
	uint64_t found = claim_at(number).load(std::memory_order_acquire);
	if (from_the_dead ? slot_at(number)->is_open || !is_gone(found) : found != 0) {
		return false;
	}
	return claim_at(number).compare_exchange_strong(found, claim, std::memory_order_acq_rel);
}

static zq_board_slot *take_any(uint64_t claim)
{
	for (int from_the_dead = 0; from_the_dead < 2; from_the_dead++) {
		for (uint32_t i = 0; i < slot_count(); i++) {
			uint32_t number = (uint32_t)(claim + i) % slot_count();
			if (take(number, claim, from_the_dead)) {
				return slot_at(number);
			}
		}
	}
	tell_once("the board is full: requests of some threads are not on it");
	return NULL;
}

static void start_slot(zq_board_slot *slot, uint64_t claim)
{
	zq_board_write(slot);
	slot->is_open = slot->actions = slot->current = slot->calls = slot->stack_length = 0;
	slot->answered = slot->asked;
	slot->owner = claim;
	slot->started_ticks = g_board.started_ticks;
	zq_board_written(slot);
}

/* Maps the board if that has not been done; true when it may be used. */
static bool is_board_there(int64_t now_s)
{
	sigset_t saved;
	zq_lock(&saved);
	if (!g_board.at && !g_board_is_lost && (!g_tried_s || now_s - g_tried_s >= RETRY_S)) {
		g_tried_s = now_s;
		map_board();
	}
	if (g_board.at && g_board.process != zq_process_number() + 1) {
		g_board.process = zq_process_number() + 1;
		g_board.started_ticks = process_start();
	}
	bool is_there = g_board.at != NULL;
	zq_unlock(&saved);
	return is_there;
}

zq_board_slot *zq_board_take_slot(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int64_t now_s = (int64_t)(g->rinit_tick / 1000000);
	if (!g->board_slot && (!g->board_tried_s || now_s - g->board_tried_s >= RETRY_S)) {
		g->board_tried_s = now_s;
		if (is_board_there(now_s)) {
			uint64_t claim = (uint64_t)getpid() << 32 | (uint32_t)zq_thread_id();
			g->board_slot = take_any(claim);
			if (g->board_slot) {
				start_slot(g->board_slot, claim);
			}
		}
	}
	if (g->board_slot && g_board_is_lost) {
		tell_once("the board has been cut short: it is not used any more");
		return NULL;
	}
	return g->board_slot && is_guarded() ? g->board_slot : NULL;
}

void zq_board_crashed(int signal_number)
{
	const uint64_t claim = (uint64_t)getpid() << 32 | (uint32_t)syscall(SYS_gettid);
	for (uint32_t i = 0; g_board.at && i < slot_count(); i++) {
		if (claim_at(i).load(std::memory_order_relaxed) == claim) {
			slot_at(i)->signal = (uint16_t)signal_number;
		}
	}
}

void zq_board_forget(void)
{
	TSRMLS_FETCH();
	if (g_module_up) { /* else there are no globals */
		zend_zqprof_globals *g = zq_globals(TSRMLS_C);
		g->board = g->board_slot = NULL;
		g->board_tried_s = 0;
	}
}

void zq_board_leave(zend_zqprof_globals *g)
{
	zq_board_slot *slot = g->board_slot;
	g->board = g->board_slot = NULL;
	if (!slot || g_board_is_lost) {
		return;
	}
	uint64_t claim = slot->owner;
	uint32_t number = (uint32_t)(slot - slot_at(0));
	slot->is_open = 0;
	claim_at(number).compare_exchange_strong(claim, 0, std::memory_order_acq_rel);
}
