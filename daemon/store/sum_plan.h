// Which rows of the tables of sums a range of time is made of: minutes, hours, or both.
#pragma once

#include "base/clock.h"
#include "store/reader.h"

#include <cstdint>
#include <vector>

namespace quorbit {

// `value` down or up to a multiple of `unit`; neither is negative.
int64_t floor_to(int64_t value, int64_t unit);
int64_t ceil_to(int64_t value, int64_t unit);

// Rows of one table: `from` <= time < until, in its unit.
struct SumPart {
	bool hours;
	int64_t from, until;

	int64_t unit_ms() const { return hours ? hour_ms : minute_ms; }
};

// The first and last hour and minute since 1970 of which there are rows; 0 of none.
struct KeptSums {
	int64_t first_hour = 0, last_hour = 0, first_minute = 0, last_minute = 0;
};

// Of what a range is made: minutes as far as there are any, hours alone, or whole hours by hour and the rest by minute.
enum class SumGrain { minutes, hours, fewest_rows };

class SumPlan {
public:
	SumPlan(const KeptSums &kept, const TimeRange &range, SumGrain grain);

	// The range, widened to whole minutes, and where only hours are left to whole hours.
	const TimeRange &range() const { return range_; }
	// Oldest first.
	const std::vector<SumPart> &parts() const { return parts_; }

private:
	void add(bool hours, int64_t from, int64_t until);

	TimeRange range_;
	std::vector<SumPart> parts_;
};

} // namespace quorbit
