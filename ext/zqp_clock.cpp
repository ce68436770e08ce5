/* Following the kernel's clock by the processor's counter. */
#include "zqp_state.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#ifdef __x86_64__
#include <cpuid.h>
#endif

#include "zqp_debug.h"

static const uint64 US_PER_LINE = 100000;      /* a slope that is wrong by 10 ppm is wrong by 1 us then */
static const uint64 FIRST_SLOPE_NS = 10000000; /* both readings are good to some 50 ns */
static const uint64 SLOPE_NS = 1000000000;
static const uint64 LONGEST_SLOPE_NS = 10 * SLOPE_NS; /* who knows what happened meanwhile: the host may have slept */
static const uint64 GOOD_READING_TICKS = 2000;        /* between the two counter readings around the kernel's */
static const double FRACTION = (double)((uint64)1 << ZQ_CLOCK_FRACTION_BITS);

/* Both clocks at module start-up. */
static uint64 started_tick, started_ns;
/* No thread uses the counter any more once one has seen it drift. */
static int is_trusted;

static uint64 kernel_ns(void)
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return (uint64)now.tv_sec * 1000000000 + (uint64)now.tv_nsec;
}

/* The kernel keeps time by the counter only while it finds it invariant and alike on all processors. */
static int kernel_trusts_counter(void)
{
	char name[8] = "";
	int fd = open("/sys/devices/system/clocksource/clocksource0/current_clocksource", O_RDONLY | O_CLOEXEC);
	if (fd == -1) {
		return 0;
	}
	ssize_t len = read(fd, name, sizeof(name) - 1);
	close(fd);
	return len == 4 && memcmp(name, "tsc\n", 4) == 0;
}

static int counter_is_invariant(void)
{
#ifdef __x86_64__
	unsigned a, b, c, d;
	return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & 1 << 8);
#else
	return 0;
#endif
}

/* Reads both at one moment, as closely as a few attempts allow: the process may be interrupted between them. */
static void read_both(uint64 *tick, uint64 *ns)
{
	uint64 closest = UINT64_MAX;
	for (int attempt = 0; attempt < 4 && closest > GOOD_READING_TICKS; attempt++) {
		uint64 before = zq_clock_counter();
		uint64 between = kernel_ns();
		uint64 apart = zq_clock_counter() - before;
		if (apart < closest) {
			closest = apart;
			*tick = before + apart / 2;
			*ns = between;
		}
	}
}

void zq_clock_init(void)
{
	if (counter_is_invariant() && kernel_trusts_counter()) {
		read_both(&started_tick, &started_ns);
		__atomic_store_n(&is_trusted, 1, __ATOMIC_RELAXED);
	}
}

void zq_clock_start(zq_clock *clock)
{
	memset(clock, 0, sizeof(*clock));
	clock->is_abandoned = !__atomic_load_n(&is_trusted, __ATOMIC_RELAXED);
	clock->from_tick = started_tick;
	clock->from_ns = started_ns;
}

/* ---- the line ---------------------------------------------------------------------------------------------------- */

/* Distance of a counter value from the start of the line, within its span. A counter that was set back counts as past
 * the end. */
static uint64 ticks_used(const zq_clock *clock, uint64 tick)
{
	uint64 ahead = tick - clock->tick, behind = clock->tick - tick;
	if (behind < clock->span) {
		return 0;
	}
	return ahead < clock->span ? ahead : clock->span;
}

/* The counter cannot be what it was if it has strayed by an eighth, or was set back. After a long pause nobody can
 * tell. */
static bool has_run_off(const zq_clock *clock, uint64 tick, uint64 ns)
{
	uint64 elapsed = tick - clock->tick;
	if ((int64_t)elapsed < 0) {
		return 0 - elapsed >= clock->span;
	}
	if (elapsed > LONGEST_SLOPE_NS / 1000 / US_PER_LINE * clock->span) {
		return false;
	}
	int64_t shown_ns = (int64_t)zq_clock_on_line(clock, tick) * 1000;
	int64_t error_ns = shown_ns - (int64_t)ns;
	int64_t allowed_ns = 1000000 + (shown_ns - (int64_t)clock->us * 1000) / 8;
	return error_ns > allowed_ns || error_ns < -allowed_ns;
}

/* Between 62 MHz and 64 GHz, and near what it was: the host may have slept while the counter went on. */
static bool is_plausible(double ticks_per_ns, uint64 known_us_per_tick)
{
	double known = known_us_per_tick ? FRACTION / 1000 / (double)known_us_per_tick : 0;
	return ticks_per_ns > 1. / 16 && ticks_per_ns < 64 && (!known || fabs(ticks_per_ns - known) < known / 8);
}

static void learn_slope(zq_clock *clock, uint64 tick, uint64 ns)
{
	uint64 elapsed_ns = ns - clock->from_ns;
	if (clock->from_ns && elapsed_ns < (clock->us_per_tick ? SLOPE_NS : FIRST_SLOPE_NS)) {
		return;
	}
	double ticks_per_ns = (double)(tick - clock->from_tick) / (double)elapsed_ns;
	int is_good = clock->from_ns && elapsed_ns <= LONGEST_SLOPE_NS && is_plausible(ticks_per_ns, clock->us_per_tick);
	if (is_good) {
		clock->us_per_tick = (uint64)(FRACTION / 1000 / ticks_per_ns);
	}
	if (!is_good || elapsed_ns >= SLOPE_NS) {
		clock->from_tick = tick;
		clock->from_ns = ns;
	}
}

uint64 zq_clock_follow(zq_clock *clock, uint64 tick, uint64 ns)
{
	uint64 shown_us = clock->span ? zq_clock_on_line(clock, clock->tick + ticks_used(clock, tick)) : clock->us;
	uint64 us = ns / 1000 > shown_us ? ns / 1000 : shown_us;
	if (clock->span && has_run_off(clock, tick, ns)) {
		clock->is_abandoned = 1;
		clock->span = 0;
		clock->us = us;
		return us;
	}
	learn_slope(clock, tick, ns);
	clock->us = us;
	if (clock->us_per_tick) {
		/* The line passes through `us` when the kernel's clock does: a little earlier, or, where the old line led,
		 * later. Until then the clock stands. */
		double ticks_per_us = FRACTION / (double)clock->us_per_tick;
		clock->tick = tick + (uint64)(int64_t)((double)(int64_t)(us * 1000 - ns) / 1000 * ticks_per_us);
		clock->span = (uint64)((double)US_PER_LINE * ticks_per_us);
	}
	return us;
}

/* ---- readings ---------------------------------------------------------------------------------------------------- */

static void abandon_counter(zq_clock *clock)
{
	clock->is_abandoned = 1;
	clock->span = 0;
	if (__atomic_exchange_n(&is_trusted, 0, __ATOMIC_RELAXED)) {
		ZQ_LOG(ZQ_LOG_WARNING,
			"the time-stamp counter drifts from the kernel's clock: from now on the kernel is asked for the time");
	}
}

static uint64 not_before(const zq_clock *clock, uint64 us)
{
	return us > clock->us ? us : clock->us;
}

uint64 zq_clock_read_kernel(zq_clock *clock)
{
	uint64 tick, ns = 0;
	if (clock->is_abandoned) {
		return not_before(clock, kernel_ns() / 1000);
	}
	if (clock->span) {
		if (clock->tick - zq_clock_counter() < clock->span) {
			return clock->us; /* the line has yet to begin */
		}
	} else {
		ns = kernel_ns();
		if (clock->from_ns && ns - clock->from_ns < FIRST_SLOPE_NS) {
			return not_before(clock, ns / 1000);
		}
	}
	read_both(&tick, &ns);
	uint64 us = zq_clock_follow(clock, tick, ns);
	if (clock->is_abandoned || !__atomic_load_n(&is_trusted, __ATOMIC_RELAXED)) {
		abandon_counter(clock);
	}
	return us;
}

uint64 cycle_timer(void)
{
	TSRMLS_FETCH();
	return zq_clock_us(&ZQG(clock));
}
