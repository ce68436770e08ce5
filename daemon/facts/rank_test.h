// Whether durations of one time are longer than those of another, or whether chance makes them look so.
#pragma once

#include "facts/histogram.h"

namespace quorbit {

struct RankTest {
	double p = 1;        // that such a difference, or a greater one, comes by chance; two-sided
	double longer = 0.5; // how often one of `after` is longer than one of `before`, ties counted by half
};

// The Mann-Whitney U test with its normal approximation, corrected for ties and for continuity (H. B. Mann, D. R.
// Whitney: "On a test of whether one of two random variables is stochastically larger than the other", 1947). Durations
// of one bucket are ties. The approximation holds from some twenty durations on each side; of less than `fewest` p
// is 1.
RankTest rank_test(const Histogram &before, const Histogram &after, int64_t fewest = 20);

} // namespace quorbit
