// Two ranges of time held against each other: what came, went, became slower or faster; which errors became frequent.
#pragma once

#include "store/reader.h"

namespace quorbit {

struct CompareQuestion {
	TimeRange before, after;
	std::string application = {}, host = {};
};

// From the release of this name until the next one or now, a day at most, against the same time before it; the minute
// of the release itself counts for neither. `releases` oldest first. Throws std::runtime_error with a message for the
// operator when there is no such release, or nothing to compare yet.
CompareQuestion around_release(const std::vector<ReleaseRow> &releases, const std::string &name, int64_t now_ms);

enum class ChangeKind { appeared, more_often, slower, faster, less_often, vanished };

struct Change {
	ChangeKind kind;
	SumKey key; // action, query or error
	KeyFacts facts;
	Sums before, after;
	// Microseconds an hour that are lost since; of errors, which take no time of their own, 0. Negative: won.
	double lost_us_per_hour = 0;
	double p = 1; // of the test; 1 where there is none, of what appeared or vanished
};

struct Comparison {
	TimeRange before, after;     // as the sums have them
	std::vector<Change> changes; // those by which most time is lost first, then in the order of their kinds
	int64_t compared = 0;        // keys that were in both
	int64_t too_few = 0;         // actions and queries of them with too few samples to say anything
};

// Slower or faster is what the rank test (facts/rank_test.h) finds at 1 % over all keys together (by Bonferroni: 1 %
// shared among them), with at least 20 samples on each side, and whose average has changed by 5 % or more the same way.
// Errors come more or less often when the rate test (facts/rate_test.h) finds so at that same 1 %, by the number of
// actions of their application, and their rate has changed by 5 % or more. Keys are said to have come when the time
// before has so many actions that one would have been expected in it, to have gone when three would have been in the
// time after.
Comparison compare(Reader &store, const CompareQuestion &question);

} // namespace quorbit
