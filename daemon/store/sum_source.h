// Sums wherever they are kept, and the answers that are made of them: a database finds rows, what they come to is
// worked out here.
#pragma once

#include "store/reader.h"
#include "store/sum_plan.h"

#include <functional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace quorbit {

struct FoundSums {
	int64_t key = 0; // its number, 0 of one that is not known any more
	int64_t at_ms = 0, unit_ms = 0;
	std::string_view sums; // as Sums::add_bytes reads them
	std::string_view host;
};

// The kind of the keys that a question asks for: of applications and hosts those of actions.
KeyKind kind_of(SumKey key);

// Every function throws std::runtime_error with a message for the operator.
class SumSource {
public:
	virtual ~SumSource() = default;

	virtual KeptSums kept() = 0;
	// Calls on_row for every row of a kind in the parts of the plan that the filter lets through, in any order. With
	// SumFilter::within, those of the two keys together.
	virtual void each(const SumPlan &plan, KeyKind kind, const SumFilter &filter,
		const std::function<void(const FoundSums &)> &on_row) = 0;
	// Whether the plan's minutes are more rows than anybody wants to wait for: those of many hosts are added up here.
	virtual bool has_too_many_minutes(const SumPlan &, KeyKind, const SumFilter &) { return false; }
	// Those of the keys that are known.
	virtual std::unordered_map<int64_t, KeyFacts> keys(const std::vector<int64_t> &ids) = 0;
	// Those of the actions that are there.
	virtual std::unordered_set<int64_t> actions_there(const std::vector<int64_t> &ids) = 0;
};

// Throw what the source throws.
SumAnswer answer_sums(SumSource &source, const SumQuestion &question);
std::vector<SeriesPoint> answer_series(SumSource &source, const SeriesQuestion &question);

} // namespace quorbit
