// Requests, or the statements of requests, as counters that only grow, the form in which metrics leave the host: read
// again and again from the sums by minute, since this object was made. What it keeps is bounded, whatever the
// applications do.
#pragma once

#include "store/reader.h"

#include <array>
#include <map>
#include <span>

namespace quorbit {

// Upper bounds of the histograms, in microseconds: those that OpenTelemetry's semantic conventions advise for the
// duration of HTTP requests. A duration is 2 % from its own at most, since it comes of a Histogram.
constexpr std::array<int64_t, 14> duration_bounds_us = {
	5000, 10000, 25000, 50000, 75000, 100000, 250000, 500000, 750000, 1000000, 2500000, 5000000, 7500000, 10000000};

// And those that they advise for the duration of a database's operations.
constexpr std::array<int64_t, 9> statement_bounds_us = {
	1000, 5000, 10000, 50000, 100000, 500000, 1000000, 5000000, 10000000};

struct RequestCounts {
	int64_t count = 0, errors = 0, total_us = 0;
	int64_t database_us = 0, cache_us = 0, external_us = 0, code_us = 0, cpu_us = 0;
	// Below each bound, beyond the last; 0 where there are fewer bounds.
	std::array<int64_t, duration_bounds_us.size() + 1> durations = {};

	RequestCounts() = default;
	RequestCounts(const Sums &sums, std::span<const int64_t> bounds_us);

	// Adds `other` times `sign`.
	void add(const RequestCounts &other, int64_t sign = 1);
	bool operator==(const RequestCounts &) const = default;
};

// Whose requests. All are text for terminals, 200 columns at most; the action is "" for all of an application.
struct RequestLabels {
	std::string application, action;
	std::string vendor = {}, table = {}, verb = {}; // of statements, in the place of the action
	auto operator<=>(const RequestLabels &) const = default;
};

// What is counted.
struct TotalsOf {
	SumKey key = SumKey::action; // or SumKey::query
	std::span<const int64_t> bounds_us = duration_bounds_us;
};

// The action that has taken longest of late.
struct Slowest {
	int64_t us = 0, id = 0; // 0 for none
};

class RequestTotals {
public:
	explicit RequestTotals(TotalsOf of = {}) : of_(of) {}

	// The busiest, each by the time that its requests took in the last minutes, have counts of their own: what others
	// add counts as other_keys. Whoever loses its place begins anew should it come back.
	static constexpr size_t most_applications = 64, most_actions = 200;

	// Adds what has come since the last call; the first only looks where to begin. `reader` is null while nothing has
	// been stored. Throws what it throws, and has changed nothing then.
	void update(Reader *reader, int64_t now_ms);

	const std::map<RequestLabels, RequestCounts> &applications() const { return applications_.counts; }
	const std::map<RequestLabels, RequestCounts> &actions() const { return actions_.counts; }
	// Of the last minutes, by the labels of actions().
	std::map<RequestLabels, Slowest> slowest() const;
	// Packets that were not stored, or not in full, by reason.
	const std::map<std::string, int64_t> &dropped() const { return dropped_; }

private:
	// What was read of a minute.
	struct Minute {
		std::map<RequestLabels, RequestCounts> actions;
		std::map<RequestLabels, Slowest> slowest;
		std::map<std::string, int64_t> dropped;
	};
	// Counts by labels, of which only so many are told apart.
	struct Places {
		size_t most;
		std::map<RequestLabels, RequestCounts> counts = {};
		size_t taken = 0; // by other than other_keys

		void give(const std::map<RequestLabels, int64_t> &weights);
		void add(const RequestLabels &labels, const RequestLabels &else_to, const RequestCounts &counts);
	};

	Minute read(Reader *reader, int64_t from_minute, int64_t until_minute) const;
	void give_places();
	void add(const Minute &now, const Minute &before);

	const TotalsOf of_;
	std::map<int64_t, Minute> recent_; // may still grow
	Places applications_ = {most_applications}, actions_ = {most_actions};
	std::map<std::string, int64_t> dropped_;
};

} // namespace quorbit
