#include <sys/prctl.h>
#include <thread>

#include "engine_fixture.h"

class HelperClock : public EngineTest {};

TEST_F(HelperClock, WorksOutTheMemoryInUse)
{
	expect_made([](const std::string &meminfo) { return std::to_string(zq_memory_used_of(meminfo.c_str())); }, {
		{"MemTotal: 1000 kB\nMemFree: 5 kB\nMemAvailable: 250 kB\nInactive: 1 kB\n", "75"},
		{"MemTotal: 1000 kB\nMemTotal: 9 kB\nMemFree: 100 kB\nMemFree: 9 kB\nActive: 9 kB\nInactive: 150 kB\n", "75"},
		{"MemTotal: 3000 kB\nMemAvailable: 1000 kB\n", "67"},
		{"MemTotal: 1000 kB\nInactive(anon): 500 kB\nMemFre: 500 kB\n", "100"},
		{"MemTotal: 1000 kB\nMemAvailable: 250 kB", "100"}, /* cut off: the line has no end */
		{"MemTotal: 1000 kB\nrubbish\nMemAvailable: 250 kB\n", "100"},
		{"MemTotal: 274877906944 kB\nMemAvailable: 137438953472 kB\n", "50"}, {"MemTotal: 0 kB\nMemAvailable: 250 kB\n", "0"},
	});
}

TEST_F(HelperClock, MeasuresTheFrontEndsQueue)
{
	const struct { const char *stamp; uint64 ms; int wait_ms; } cases[] = {
		{"t=123", 100, 0}, {"t=100x7", 123, 23}, {"s=1476950000.123", 1476950000124, 1}, {"s=1 0,0", 123, 23}, {"x=5", 123, 123},
		{"s=20000000000000000000", 5, 6}, /* the largest number, whose low half is -1 */
		{"t=20000000000000000000", 5, 6}, {"x=5", 0x1ffffffffull, 0}, /* 32 bits: -1 */
		{"t=", 7, 7}, {"", 7, 7}, {nullptr, 7, 0},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(get_block_time(c.stamp, c.ms), c.wait_ms) << c.stamp;
	}
}

TEST_F(HelperClock, LeavesTheOutputsAloneWhenAFigureIsMissing)
{
	uint64 cpu = 77;
	std::thread([&] {
		prctl(PR_SET_NAME, "two words"); /* shifts the fields of the line */
		EXPECT_EQ(get_usage(zq_thread_id(), &cpu, nullptr), -1);
	}).join();
	EXPECT_EQ(get_usage(0x7ffffffe, &cpu, nullptr), -1);
	EXPECT_EQ(cpu, 77u);
}
