// Sums per action name, for a store that has no sums of its own.
#pragma once

#include "store/reader.h"

#include <map>

namespace quorbit {

// Adds actions by application and name.
class ActionSums {
public:
	void add(const ActionRow &row);
	// Those with most time together first.
	std::vector<SumRow> sorted();

private:
	struct Sum {
		SumRow row;
		std::vector<int64_t> durations_ms;
	};
	std::map<std::pair<std::string, std::string>, Sum> sums_;
};

// The smallest value that at least `percentile` per cent of the values do not exceed; 0 of no values. Reorders them.
int64_t percentile(std::vector<int64_t> &values, int percentile);

} // namespace quorbit
