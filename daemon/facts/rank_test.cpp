// Ranks from buckets.
#include "facts/rank_test.h"

#include <algorithm>
#include <cmath>

namespace quorbit {

namespace {

double count_in(const Histogram &histogram, int bucket)
{
	const int index = bucket - histogram.first();
	if (index < 0 || index >= static_cast<int>(histogram.counts().size())) return 0;
	return static_cast<double>(histogram.counts()[static_cast<size_t>(index)]);
}

} // namespace

RankTest rank_test(const Histogram &before, const Histogram &after, int64_t fewest)
{
	RankTest test;
	const auto n = static_cast<double>(before.count()), m = static_cast<double>(after.count());
	if (std::min(before.count(), after.count()) < fewest) return test;
	const int end = std::max(before.first() + static_cast<int>(before.counts().size()),
		after.first() + static_cast<int>(after.counts().size()));
	double u = 0, shorter = 0, ties = 0; // u: pairs in which `after` is longer
	for (int bucket = std::min(before.first(), after.first()); bucket < end; bucket++) {
		const double in_before = count_in(before, bucket), in_after = count_in(after, bucket),
					 in_both = in_before + in_after;
		u += in_after * (shorter + in_before / 2);
		shorter += in_before;
		ties += in_both * in_both * in_both - in_both;
	}
	test.longer = u / (n * m);
	const double all = n + m;
	const double variance = n * m / 12 * (all + 1 - ties / (all * (all - 1)));
	if (variance <= 0) return test; // all are equal
	const double z = std::max(std::abs(u - n * m / 2) - 0.5, 0.0) / std::sqrt(variance);
	test.p = std::erfc(z / std::sqrt(2.0));
	return test;
}

} // namespace quorbit
