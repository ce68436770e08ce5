// The sums of a fleet's store.
#pragma once

#include "store/clickhouse.h"
#include "store/sum_source.h"

#include <map>

namespace quorbit {

class ClickHouseSums : public SumSource {
public:
	explicit ClickHouseSums(ClickHouse &server) : server_(server) {}

	KeptSums kept() override;
	void each(const SumPlan &plan, KeyKind kind, const SumFilter &filter,
		const std::function<void(const FoundSums &)> &on_row) override;
	bool has_too_many_minutes(const SumPlan &plan, KeyKind kind, const SumFilter &filter) override;
	std::unordered_map<int64_t, KeyFacts> keys(const std::vector<int64_t> &ids) override;
	std::unordered_set<int64_t> actions_there(const std::vector<int64_t> &ids) override;

private:
	class KeySet;
	struct Rows;
	static Rows rows_of(const SumPart &part, KeyKind kind, const SumFilter &filter, const KeySet &keys);
	void each_in(const Rows &rows, const KeySet &keys, const std::function<void(const FoundSums &)> &on_row);
	void each_between(const Rows &rows, int64_t from, int64_t until, const KeySet &keys,
		const std::function<void(const FoundSums &)> &on_row);
	const std::string &host_of(int64_t source);

	ClickHouse &server_;
	std::map<int64_t, std::string> hosts_; // by the numbers of their stores
};

// Conditions of SQL, to follow others: " AND day >= '2026-11-21' AND ..." of the range as far as it has ends; that of a
// host, "" for all.
std::string days_condition(const TimeRange &range);
std::string host_condition(const std::string &host);

} // namespace quorbit
