// Rows of sums, added up and put in order, wherever they were read.
#pragma once

#include "store/reader.h"

#include <cstdint>
#include <functional>
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

// Fills in the keys of rows that have no more of it than its number.
using NameRows = std::function<void(std::vector<SumRow> &rows)>;

// The largest first, those that are equal by application and name: numbers differ from store to store. Counts what lies
// beyond the first `most` as left out. `name`, where there is one, gets the rows that stay and those equal to the last
// of them.
void order_rows(SumAnswer &answer, SumOrder order, int64_t most, const NameRows &name = {});

} // namespace quorbit
