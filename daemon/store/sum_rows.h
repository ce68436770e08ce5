// Rows of sums, added up and put in order, wherever they were read.
#pragma once

#include "store/reader.h"

#include <cstdint>
#include <string_view>
#include <unordered_map>

namespace quorbit {

// Adds rows up, by key.
class SumAdder {
public:
	// `points`: how many equal parts of the range each row's trend has; 0 for no trend.
	SumAdder(const TimeRange &range, int64_t points) : range_(range), points_(points) {}

	// Sums as Sums::add_bytes reads them, of a part of the range that began at `at_ms`.
	void add(int64_t id, int64_t at_ms, std::string_view bytes);

	// By the key's number; the rows' keys are left to the caller.
	std::unordered_map<int64_t, SumRow> &rows() { return rows_; }

private:
	TimeRange range_;
	int64_t points_;
	std::unordered_map<int64_t, SumRow> rows_;
};

// Adds sums and trend; `to` keeps its key.
void add_row(SumRow &to, const SumRow &from);

// The largest first, those that are equal by their keys' numbers; counts what lies beyond the first `most` as left out.
void order_rows(SumAnswer &answer, SumOrder order, int64_t most);

} // namespace quorbit
