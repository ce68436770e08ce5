#include <sys/wait.h>
#include <ctime>
#include <thread>

#include "engine_fixture.h"

/* A processor's counter and a kernel's clock that agree, until a test says otherwise. */
class Clock : public EngineTest {
protected:
	static constexpr uint64 second = 1000000000;
	zq_clock clock = {};
	uint64 tick = 1000, ns = 5 * second + 777; /* what both show */
	double ticks_per_ns = 2.4;

	uint64 after(uint64 elapsed_ns)
	{
		ns += elapsed_ns;
		tick += (uint64)((double)elapsed_ns * ticks_per_ns);
		return read();
	}
	/* What the hot path does. */
	uint64 read() { return tick - clock.tick < clock.span ? zq_clock_on_line(&clock, tick) : zq_clock_follow(&clock, tick, ns); }
	/* us that the clock is ahead of the kernel's */
	int64_t lead() { return (int64_t)(read() - ns / 1000); }
	void calibrate()
	{
		after(0);
		EXPECT_EQ(clock.span, 0u);
		after(second / 100);
		EXPECT_GT(clock.span, 0u) << "10 ms are enough for a first slope";
	}
	static uint64 kernel_us()
	{
		timespec now;
		clock_gettime(CLOCK_MONOTONIC, &now);
		return (uint64)now.tv_sec * 1000000 + (uint64)now.tv_nsec / 1000;
	}
};

TEST_F(Clock, FollowsTheKernelsClockWhoseRateChangesAndNeverGoesBack)
{
	calibrate();
	uint64 last = 0;
	/* a kernel that slews its clock, by up to 2 %, once in a while */
	for (double rate : {2.4, 2.4005, 2.3995, 2.45, 2.35, 2.4}) {
		ticks_per_ns = rate;
		for (int i = 0; i < 40000; i++) {
			uint64 us = after(100000 + (uint64)i % 1777);
			ASSERT_LE(last, us) << rate << " " << i;
			ASSERT_LT(llabs(lead()), 5000) << rate << " " << i; /* 4 % of the 100 ms of a line */
			last = us;
		}
		EXPECT_LE(llabs(lead()), 1) << rate << ": the slope has been learnt";
	}
	EXPECT_FALSE(clock.is_abandoned);
}

TEST_F(Clock, GivesUpACounterThatRunsOffAndGoesOnByTheKernelsClock)
{
	const struct { const char *what; uint64 ns; int64_t ticks; bool is_abandoned; } cases[] = {
		{"nobody asked for an hour", 3600 * second, (int64_t)(3600 * second * 2.4), false},
		{"the host slept, the counter did not", 0, (int64_t)(30 * second * 2.4), false},
		{"was interrupted while both were read", second / 5, (int64_t)(second / 5 * 2.4 * 1.004), false},
		{"set back", second / 5, -(int64_t)second, true},
		{"twice as fast", second / 5, (int64_t)(second / 5 * 4.8), true},
		{"half as fast", second / 5, (int64_t)(second / 5 * 1.2), true},
	};
	for (const auto &c : cases) {
		clock = {};
		calibrate();
		uint64 before = after(second / 20);
		tick += (uint64)c.ticks;
		ns += c.ns;
		uint64 us = read();
		EXPECT_GE(us, before) << c.what;
		EXPECT_EQ(clock.is_abandoned, c.is_abandoned) << c.what;
		EXPECT_EQ(clock.span == 0, c.is_abandoned) << c.what;
		EXPECT_LT(us, ns / 1000 + 101000) << c.what; /* no further than the old line led */
		after(2 * second);
		after(second / 5);
		EXPECT_LE(c.is_abandoned ? 0 : llabs(lead()), 1) << c.what << ": back in step";
	}
}

TEST_F(Clock, AgreesWithTheKernelsInEveryThreadAndInAForkedChild)
{
	const auto agrees = [](int rounds) {
		uint64 last = 0;
		for (int i = 0; i < rounds; i++) {
			uint64 before = kernel_us(), us = cycle_timer(), behind = kernel_us();
			if (us < last || us + 50 < before || us > behind + 50) {
				ADD_FAILURE() << before << " " << us << " " << behind;
				return false;
			}
			last = us;
		}
		return true;
	};
	EXPECT_TRUE(agrees(200000));
	std::thread threads[2];
	for (std::thread &thread : threads) {
		thread = std::thread([&] {
			agrees(200000);
			ts_free_thread();
		});
	}
	for (std::thread &thread : threads) {
		thread.join();
	}
	pid_t child = fork();
	if (child == 0) {
		_exit(agrees(200000) ? 0 : 1);
	}
	int status = -1;
	waitpid(child, &status, 0);
	EXPECT_EQ(status, 0);
}
