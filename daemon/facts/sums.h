// What actions, statements, calls and the like are added up to.
#pragma once

#include "facts/histogram.h"

namespace quorbit {

// Everything here can be added: of minutes to hours, of keys to a whole. Times are microseconds.
struct Sums {
	int64_t count = 0;  // actions; of queries, caches and outgoing calls how often they were made
	int64_t errors = 0; // of them
	int64_t total_us = 0;
	// Of actions, paths, errors and hosts alone; 0 elsewhere.
	int64_t database_us = 0, cache_us = 0, external_us = 0, code_us = 0;
	int64_t waiting_us = 0; // in front of PHP, beside the total
	int64_t cpu_us = 0;     // processor time
	int64_t statements = 0;
	Histogram durations; // of each of `count`
	// Examples: actions that had the key. 0 for none; the one by chance is that with the least hash.
	int64_t slowest_us = 0, slowest_id = 0, newest_id = 0, chance_id = 0;

	int64_t average_us() const { return count ? total_us / count : 0; }

	void add(const Sums &other);

	// The sums as bytes, and back. False when they are damaged; what was read is added to these sums.
	std::string bytes() const;
	bool add_bytes(std::string_view bytes);
	// The same for all but the durations, which are what is left of `bytes`.
	bool add_head(std::string_view &bytes);
};

} // namespace quorbit
