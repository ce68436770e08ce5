// Minutes are kept for days and hours for months: which of them hold a range.
#include "store/sum_plan.h"

#include <algorithm>

namespace quorbit {

int64_t floor_to(int64_t value, int64_t unit)
{
	return value / unit * unit;
}

int64_t ceil_to(int64_t value, int64_t unit)
{
	return floor_to(value + unit - 1, unit);
}

namespace {

// The time that there are rows of: a question may ask from the beginning to the end of time.
struct Kept {
	int64_t first_ms, end_ms; // of hours, and of the last minute
	int64_t minutes_from_ms;  // from there on every hour has its minutes

	explicit Kept(const KeptSums &sums)
	{
		first_ms = sums.first_hour * hour_ms;
		const int64_t hours_end_ms = (sums.last_hour + 1) * hour_ms;
		const int64_t minutes_end_ms = (sums.last_minute + 1) * minute_ms;
		const bool any_minutes = minutes_end_ms > hours_end_ms - hour_ms;
		end_ms = any_minutes ? minutes_end_ms : hours_end_ms;
		const int64_t first_minute_ms = sums.first_minute * minute_ms;
		const bool all_there = any_minutes && floor_to(first_minute_ms, hour_ms) <= first_ms;
		minutes_from_ms = all_there ? first_ms : any_minutes ? ceil_to(first_minute_ms, hour_ms) : hours_end_ms;
	}
};

} // namespace

SumPlan::SumPlan(const KeptSums &sums, const TimeRange &range, SumGrain grain)
{
	const Kept kept(sums);
	int64_t from = std::max(floor_to(std::max(range.from_ms, int64_t{0}), minute_ms), kept.first_ms);
	// Nothing lies beyond the last minute; what is asked for beyond it is part of the range all the same.
	const int64_t asked = range.until_ms == INT64_MAX ? kept.end_ms : std::max(range.until_ms, int64_t{0});
	int64_t until = ceil_to(std::min(asked, kept.end_ms), minute_ms);
	if (grain == SumGrain::hours || from < kept.minutes_from_ms) from = floor_to(from, hour_ms);
	if (grain == SumGrain::hours || until <= kept.minutes_from_ms) until = ceil_to(until, hour_ms);
	range_ = {from, std::max({from, until, ceil_to(asked, minute_ms)})};
	// The last hour has nothing after the last minute.
	const int64_t hours_until = until >= kept.end_ms ? ceil_to(until, hour_ms) : floor_to(until, hour_ms);
	int64_t hours_from = ceil_to(from, hour_ms), hours_end = hours_until;
	if (grain == SumGrain::minutes) hours_end = std::min(hours_until, kept.minutes_from_ms);
	if (hours_from >= hours_end) hours_from = hours_end = until;
	add(false, from, hours_from);
	add(true, hours_from, hours_end);
	add(false, hours_end, until);
}

void SumPlan::add(bool hours, int64_t from, int64_t until)
{
	const int64_t unit = hours ? hour_ms : minute_ms;
	if (from < until) parts_.push_back({hours, from / unit, until / unit});
}

} // namespace quorbit
