/* The slots of the board: each thread takes one at its first action and gives it back when it ends. */
#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "zqp_board.h"
#include "zqp_board_file.h"
#include "zqp_lock.h"

static const int64_t RETRY_S = 10; /* between a thread's looks for a free slot */

static uint32_t slot_count(const zq_board_mapping *board)
{
	/* from the size, which we have checked, and not from the header, which anybody may have changed since */
	return (uint32_t)((board->size - sizeof(zq_board_header)) / (sizeof(zq_board_slot) + sizeof(uint64_t)));
}

static zq_board_slot *slot_at(const zq_board_mapping *board, uint32_t number)
{
	return (zq_board_slot *)(board->at + zq_board_slots_at(slot_count(board))) + number;
}

static std::atomic_ref<uint64_t> claim_at(const zq_board_mapping *board, uint32_t number)
{
	return std::atomic_ref<uint64_t>(((uint64_t *)(board->at + sizeof(zq_board_header)))[number]);
}

static std::atomic_ref<uint64_t> claim_of(const zend_zqprof_globals *g)
{
	return claim_at(g->board_mapping, (uint32_t)(g->board_slot - slot_at(g->board_mapping, 0)));
}

/* Numbers that no thread can have are gone as well: somebody has overwritten the claim. */
static bool is_gone(uint64_t claim)
{
	return syscall(SYS_tgkill, (pid_t)(claim >> 32), (pid_t)claim, 0) == -1 && (errno == ESRCH || errno == EINVAL);
}

/* Of a thread that has gone with its action open, the daemon makes a report first: such a slot is its to free. */
static bool take(const zq_board_mapping *board, uint32_t number, uint64_t claim, bool from_the_dead)
{
	uint64_t found = claim_at(board, number).load(std::memory_order_acquire);
	if (from_the_dead ? slot_at(board, number)->is_open || !is_gone(found) : found != 0) {
		return false;
	}
	return claim_at(board, number).compare_exchange_strong(found, claim, std::memory_order_acq_rel);
}

static zq_board_slot *take_any(const zq_board_mapping *board, uint64_t claim)
{
	const uint32_t count = slot_count(board);
	for (int from_the_dead = 0; from_the_dead < 2; from_the_dead++) {
		for (uint32_t i = 0; i < count; i++) {
			uint32_t number = (uint32_t)(claim + i) % count;
			if (take(board, number, claim, from_the_dead)) {
				return slot_at(board, number);
			}
		}
	}
	zq_board_note("the board is full: requests of some threads are not on it");
	return NULL;
}

static void start_slot(zq_board_slot *slot, uint64_t claim)
{
	zq_board_write(slot);
	slot->is_open = slot->actions = slot->current = slot->calls = slot->stack_length = 0;
	slot->answered = slot->asked;
	slot->owner = claim;
	slot->started_ticks = zq_board_process_start();
	zq_board_written(slot);
}

/* On the board for the first time, or on a new one. */
static void take_slot(zend_zqprof_globals *g, int64_t now_s)
{
	zq_board_mapping *board = zq_board_use(now_s);
	if (!board) {
		return;
	}
	const uint64_t claim = (uint64_t)getpid() << 32 | (uint32_t)zq_thread_id();
	g->board_slot = take_any(board, claim);
	if (!g->board_slot) {
		g->board_full_s = now_s;
		zq_board_stop_using(board);
		return;
	}
	g->board_mapping = board;
	g->board_claim = claim;
	start_slot(g->board_slot, claim);
}

zq_board_slot *zq_board_take_slot(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int64_t now_s = (int64_t)(g->rinit_tick / 1000000);
	if (!zq_board_is_safe()) {
		return NULL;
	}
	if (g->board_slot && (!zq_board_is_good(g->board_mapping, now_s) || claim_of(g).load() != g->board_claim)) {
		zq_board_leave(g);
	}
	if (!g->board_slot && (!g->board_full_s || now_s - g->board_full_s >= RETRY_S)) {
		take_slot(g, now_s);
	}
	zq_board_tell();
	return g->board_slot;
}

void zq_board_crashed(int signal_number)
{
	const uint64_t claim = (uint64_t)getpid() << 32 | (uint32_t)syscall(SYS_gettid);
	for (const zq_board_mapping &board : zq_board_mappings) {
		for (uint32_t i = 0; board.at && i < slot_count(&board); i++) {
			if (claim_at(&board, i).load(std::memory_order_relaxed) == claim) {
				slot_at(&board, i)->signal = (uint16_t)signal_number;
			}
		}
	}
}

void zq_board_forget(void)
{
	TSRMLS_FETCH();
	if (!g_module_up) { /* then there are no globals */
		return;
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->board = g->board_slot = NULL;
	g->board_full_s = 0;
	zq_board_use_none();
}

void zq_board_leave(zend_zqprof_globals *g)
{
	if (!g->board_slot) {
		return;
	}
	uint64_t claim = g->board_claim;
	if (claim_of(g).compare_exchange_strong(claim, 0, std::memory_order_acq_rel)) {
		g->board_slot->is_open = 0;
	}
	g->board = g->board_slot = NULL;
	zq_board_stop_using(g->board_mapping);
}
