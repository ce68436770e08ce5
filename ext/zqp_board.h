/* What this thread does now, shown on the daemon's board (zqp_board_layout.h) to whoever asks on the host. Only for a
 * daemon that asks for details and has made a board; without one nothing here costs more than a test. */
#ifndef ZQP_BOARD_H
#define ZQP_BOARD_H

#include <atomic>

#include "zqp_board_layout.h"
#include "zqp_helper.h"

/* ---- zqp_board_slot.cpp: whose place is where ---- */

/* The slot of the calling thread, taken at its first call; null: no board, or none that is sound, or it is full. A
 * board that is absent is looked for again after a second, a full one after ten; one that the daemon has closed, or
 * that is not sound any more, is left for the next. What is amiss is logged once per process. */
zq_board_slot *zq_board_take_slot(TSRMLS_D);
/* Gives back the thread's slot; from any thread. */
void zq_board_leave(zend_zqprof_globals *g);
/* The calling thread crashes: its slot says so. Async-signal-safe. */
void zq_board_crashed(int signal_number);
/* In a child that has just been forked: the slot is its parent's. */
void zq_board_forget(void);

/* ---- zqp_board.cpp: what is written ---- */

/* The action begins or ends: `board` is set for the time between. An end without a beginning is nothing. */
void zq_board_open(const char *path TSRMLS_DC);
void zq_board_close(zend_zqprof_globals *g);
/* It has another name. */
void zq_board_rename(zq_board_slot *slot, const char *name);

/* A reader wants PHP's stack: writes the one of `frame`. */
void zq_board_answer(zq_board_slot *slot, zend_execute_data *frame TSRMLS_DC);
static inline bool zq_board_is_asked(const zq_board_slot *slot)
{
	return UNEXPECTED(slot->asked != slot->answered);
}
static inline void zq_board_answer_if_asked(zq_board_slot *slot, zend_execute_data *frame TSRMLS_DC)
{
	if (zq_board_is_asked(slot)) {
		zq_board_answer(slot, frame TSRMLS_CC);
	}
}

/* Marks that the slot is being written, and that it is whole again. Whatever somebody else writes there, the number is
 * odd after the first. */
static inline void zq_board_write(zq_board_slot *slot)
{
	std::atomic_ref<uint32_t> sequence(slot->sequence);
	sequence.store(sequence.load(std::memory_order_relaxed) | 1, std::memory_order_relaxed);
	std::atomic_thread_fence(std::memory_order_release);
}
static inline void zq_board_written(zq_board_slot *slot)
{
	std::atomic_ref<uint32_t> sequence(slot->sequence);
	sequence.store(sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/* A watched call is about to be made: the row of the ring for it, to be filled in by the caller, which ends with
 * zq_board_begins(). `*around` becomes the number of the call that it is made within. */
static inline zq_board_call *zq_board_add(zq_board_slot *slot, zq_board_kind kind, uint32_t *around)
{
	zq_board_write(slot);
	*around = slot->current;
	slot->counts[kind]++;
	zq_board_call *call = &slot->ring[slot->calls++ % ZQ_BOARD_CALLS];
	call->duration_us = ZQ_BOARD_RUNNING;
	call->kind = kind;
	return call;
}

/* The call that zq_board_add() made a row for begins now. */
static inline void zq_board_begins(zq_board_slot *slot, zq_board_call *call, uint64 begin_us)
{
	call->begin_us = begin_us;
	slot->current = slot->calls;
	zq_board_written(slot);
}
/* It has returned. Two numbers, whole each for itself: a reader between them sees a call that has ended and is current,
 * which it takes for one that has ended. */
static inline void zq_board_ends(zq_board_slot *slot, zq_board_call *call, uint32_t around, uint32_t took_us)
{
	std::atomic_ref<uint32_t>(call->duration_us).store(took_us, std::memory_order_relaxed);
	std::atomic_ref<uint32_t>(slot->current).store(around, std::memory_order_relaxed);
}

/* An outermost function of the script begins (`cls` null: a plain function), or has returned (`func` null). */
void zq_board_outermost(zend_zqprof_globals *g, zend_execute_data *frame, const char *cls, size_t cls_len,
	const char *func, size_t func_len TSRMLS_DC);

#endif
