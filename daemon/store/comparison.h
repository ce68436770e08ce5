// Two ranges of time held against each other: what came, went, became slower or faster.
#pragma once

#include "store/reader.h"

namespace quorbit {

struct CompareQuestion {
	TimeRange before, after;
	std::string application = {};
};

enum class ChangeKind { appeared, vanished, slower, faster };

struct Change {
	ChangeKind kind;
	SumKey key; // action, query or error
	KeyFacts facts;
	Sums before, after;
	// Microseconds an hour that are lost since; of errors, which take no time of their own, 0. Negative: won.
	double lost_us_per_hour = 0;
	double p = 1; // of the test, of slower and faster
};

struct Comparison {
	TimeRange before, after; // as the sums have them
	std::vector<Change>
		changes;          // those by which most time is lost first; errors that appeared before those that vanished
	int64_t compared = 0; // keys that were in both
	int64_t too_few = 0;  // of them with too few samples to say anything
};

// Slower or faster is what the rank test (facts/rank_test.h) finds at 1 % over all keys together (by Bonferroni: 1 %
// shared among them), with at least 20 samples on each side, and whose average has changed by 5 % or more the same way.
// Keys are said to have come or gone when the other range has so many actions that one would have been expected in it.
Comparison compare(Reader &store, const CompareQuestion &question);

} // namespace quorbit
