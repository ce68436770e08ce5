/* Internal functions that cannot be slow: strlen, count, is_array and the like. A call of one is not timed, which saves
 * both readings of the clock and more; what they would tell is for how long the scheduler took the processor away.
 *
 * A row is a function without input or output, which calls nothing of the script's, warns of nothing, and takes time
 * that hangs on no data, or on texts that are short. Where that depends on the arguments, they are looked at: `count`
 * of an object may run the object's own method, and is timed. A function is known by its handler's address, as its
 * module has it: whoever replaces the function, or what it does, has it timed again. */
#ifndef ZQP_QUICK_H
#define ZQP_QUICK_H

#include <atomic>

#include "zqp_types.h"

typedef void (*zq_handler)(INTERNAL_FUNCTION_PARAMETERS);

/* Where a function is found by its handler. Most need one argument of certain types and nothing else. */
struct zq_quick_slot {
	zq_handler handler; /* null: nobody's */
	unsigned types;     /* bit n: the only argument may be of type n; 0: the row tells more */
	unsigned row;       /* number in the table of zqp_quick.cpp */
};

enum { ZQ_QUICK_BITS = 11 };
struct zq_quick_table {
	std::atomic<uint64> multiplier;          /* 0, which leads to slot 0: none is quick */
	zq_quick_slot slots[1 << ZQ_QUICK_BITS]; /* written once, at module start-up; slot 0 is nobody's */
};
extern zq_quick_table zq_quick;

/* Fills the slots from the modules that are registered. At module start-up, and not when another extension's hook has
 * to see each call. */
void zq_quick_init(void);
/* While a profile runs in any thread of the process, every call is its business: none is quick until the end of it
 * (`profile_end_s`, seconds of the monotonic clock; 0: none in this thread). Once per action. */
void zq_quick_wait_for_profile(uint64 profile_end_s, uint64 now_s);
/* 1 when the arguments are such that the slot's function cannot be slow. `frame` is about to call it. */
int zq_quick_arguments(const zq_quick_slot *slot, const zend_execute_data *frame);

/* The slot of the function that `frame` is about to call, or null. */
static inline const zq_quick_slot *zq_quick_slot_of(const zend_execute_data *frame)
{
	zq_handler handler = frame->function_state.function->internal_function.handler;
	uint64 hash = (uint64)(uintptr_t)handler * zq_quick.multiplier.load(std::memory_order_relaxed);
	const zq_quick_slot *slot = &zq_quick.slots[hash >> (64 - ZQ_QUICK_BITS)];
	return slot->handler == handler ? slot : NULL;
}

/* 1 when the call has one argument, of a type that the slot wants. */
static inline int zq_quick_argument(const zq_quick_slot *slot, const zend_execute_data *frame)
{
	void **top = frame->function_state.arguments;
	return (uintptr_t)*top == 1 && (slot->types >> Z_TYPE_P((zval *)top[-1]) & 1);
}

#endif
