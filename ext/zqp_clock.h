/* The clock behind every figure: microseconds of the kernel's monotonic clock.
 *
 * Each call that is timed reads it twice. Where the kernel itself keeps time by the processor's time-stamp counter, a
 * thread reads that counter and follows the kernel's clock along a straight line, which it fits again every tenth of a
 * second; this takes a few instructions and no call. Everywhere else the kernel is asked each time. */
#ifndef ZQP_CLOCK_H
#define ZQP_CLOCK_H

#include "zqp_types.h"

#ifdef __x86_64__
#include <x86intrin.h>
#endif

enum { ZQ_CLOCK_FRACTION_BITS = 40 }; /* of `us_per_tick` */

/* One thread's clock; zero-filled, it asks the kernel for the start of a first line at its first reading. */
typedef struct zq_clock {
	uint64 span;        /* ticks after `tick` for which the line holds; 0: there is none, the kernel is asked */
	uint64 tick;        /* where the line begins, on the counter */
	uint64 us;          /* and on the clock; without a line: no reading may be less */
	uint64 us_per_tick; /* slope of the line, fixed-point; 0: not known yet */
	uint64 from_tick;   /* both clocks at the moment from which the slope is being taken; 0: none yet */
	uint64 from_ns;
	int is_abandoned; /* the counter ran off the kernel's clock and is not asked again */
} zq_clock;

/* Finds out whether the counter may be used, and reads both clocks, so that threads have a slope soon. At module
 * start-up. */
void zq_clock_init(void);
/* A thread's clock before its first reading. */
void zq_clock_start(zq_clock *clock);
/* A reading without the line: ends the wait for a first slope, fits the line again, or asks the kernel alone. */
uint64 zq_clock_read_kernel(zq_clock *clock);
/* Takes in that the kernel's clock showed `ns` when the counter showed `tick`, and returns the microseconds to show:
 * never less than what was shown before. Learns the slope over 10 ms first and then over seconds. Changes nothing but
 * `clock`. */
uint64 zq_clock_follow(zq_clock *clock, uint64 tick, uint64 ns);

static inline uint64 zq_clock_counter(void)
{
#ifdef __x86_64__
	return __rdtsc();
#else
	return 0; /* never asked: zq_clock_init() finds no invariant counter */
#endif
}

/* Microseconds shown at counter value `tick`; `tick` must lie on the line. Comparing counter values without converting
 * them would save ten instructions a call, but start and end, converted along two different lines, can differ by a
 * microsecond, and a parent would come after its child. */
static inline uint64 zq_clock_on_line(const zq_clock *clock, uint64 tick)
{
	return clock->us + ((tick - clock->tick) * clock->us_per_tick >> ZQ_CLOCK_FRACTION_BITS);
}

/* The clock, for callers that hold the thread's globals. */
static inline uint64 zq_clock_us(zq_clock *clock)
{
	if (EXPECTED(clock->span)) {
		uint64 tick = zq_clock_counter();
		if (EXPECTED(tick - clock->tick < clock->span)) {
			return zq_clock_on_line(clock, tick);
		}
	}
	return zq_clock_read_kernel(clock);
}

/* The same for all others. Microseconds of the monotonic clock; never less than the thread has read before. */
uint64 cycle_timer(void);

#endif
