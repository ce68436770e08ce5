#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

#include "engine_fixture.h"

class HelperClock : public EngineTest {};

TEST_F(HelperClock, CountsMicroseconds)
{
	uint64 begin = cycle_timer();
	usleep(20000);
	uint64 elapsed_us = cycle_timer() - begin;
	EXPECT_GE(elapsed_us, 20000u);
	EXPECT_LT(elapsed_us, 2000000u);
}

TEST_F(HelperClock, WorksOutTheMemoryInUse)
{
	const struct { const char *meminfo; int percent; } cases[] = {
		{"MemTotal: 1000 kB\nMemFree: 5 kB\nMemAvailable: 250 kB\nInactive: 1 kB\n", 75},
		{"MemTotal: 1000 kB\nMemFree: 100 kB\nActive: 9 kB\nInactive: 150 kB\n", 75},
		{"MemTotal: 1000 kB\nMemTotal: 9 kB\nMemFree: 100 kB\nMemFree: 9 kB\nInactive: 150 kB\n", 75},
		{"MemTotal: 3000 kB\nMemAvailable: 1000 kB\n", 67},
		{"MemTotal: 1000 kB\nInactive(anon): 500 kB\nMemFre: 500 kB\n", 100},
		{"MemTotal: 1000 kB\nMemAvailable: 250 kB", 100}, /* cut off: the line has no end */
		{"MemTotal: 1000 kB\nrubbish\nMemAvailable: 250 kB\n", 100},
		{"MemTotal: 0 kB\nMemAvailable: 250 kB\n", 0},
		{"MemFree: 10 kB\n", 0},
		{"MemTotal: 274877906944 kB\nMemAvailable: 137438953472 kB\n", 50},
		{"", 0},
		{nullptr, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.meminfo ? c.meminfo : "null");
		EXPECT_EQ(zq_memory_used_of(c.meminfo), c.percent);
	}
	EXPECT_GT(get_memory_used(), 0);
	EXPECT_LE(get_memory_used(), 100);
}

TEST_F(HelperClock, MeasuresTheFrontEndsQueue)
{
	const struct { const char *stamp; uint64 ms; int wait_ms; } cases[] = {
		{"t=123", 100, 0},
		{"t=100", 123, 23},
		{"t=100x7", 123, 23},
		{"s=1476950000.123", 1476950000124, 1},
		{"s=1 0,0", 123, 23},
		{"s=99999999999999999999999999999999999999999999", 5, 6}, /* the largest number's low half is -1 */
		{"t=99999999999999999999999999999999999999999999", 5, 6},
		{"x=5", 123, 123},
		{"x=5", 0x1ffffffffull, 0}, /* 32 bits: -1 */
		{"t=", 7, 7},
		{"s", 7, 7},
		{"", 7, 7},
		{nullptr, 7, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.stamp ? c.stamp : "null");
		EXPECT_EQ(get_block_time(c.stamp, c.ms), c.wait_ms);
	}
}

TEST_F(HelperClock, ReadsTheKernelsFiguresOfAProcess)
{
	uint64 before = 0, after = 0;
	long resident_kib = 0;
	ASSERT_EQ(get_usage(zq_thread_id(), &before, nullptr), 0);
	for (uint64 end = cycle_timer() + 100000; cycle_timer() < end;) {
	}
	ASSERT_EQ(get_usage(getpid(), &after, &resident_kib), 0);
	EXPECT_GE(after - before, 2u); /* ticks of 10 ms; the machine may be busy */
	EXPECT_LT(after - before, 100u);
	EXPECT_GT(resident_kib, 2 * 1024);
	EXPECT_LT(resident_kib, 8 * 1024 * 1024);
}

TEST_F(HelperClock, LeavesTheOutputsAloneWhenAFigureIsMissing)
{
	uint64 cpu = 77;
	long resident_kib = 78;
	EXPECT_EQ(get_usage(0x7ffffffe, &cpu, &resident_kib), -1);
	int outcome = 0;
	std::thread([&] {
		prctl(PR_SET_NAME, "two words"); /* shifts the fields of the line */
		outcome = get_usage(zq_thread_id(), &cpu, &resident_kib);
	}).join();
	EXPECT_EQ(outcome, -1);
	EXPECT_EQ(cpu, 77u);
	EXPECT_EQ(resident_kib, 78);
}
