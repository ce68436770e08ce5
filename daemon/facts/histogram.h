// Distributions of durations in buckets of a constant relative width: they are added up, and percentiles read from the
// sum are as exact as from each.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// A DDSketch with the logarithmic mapping (Masson, Rim, Lee: "DDSketch: a fast and fully-mergeable quantile sketch with
// relative-error guarantees", VLDB 2019, https://arxiv.org/abs/1908.10693). Bucket i > 0 holds gamma^(i-2) < us <=
// gamma^(i-1), bucket 0 what is shorter than a microsecond. It never merges buckets: 2^48 us, which no duration
// exceeds, is in bucket 833.
class Histogram {
public:
	static constexpr double relative_error = 0.02;
	static constexpr double gamma = (1 + relative_error) / (1 - relative_error);
	static constexpr int buckets = 834;
	static constexpr int64_t most_count = int64_t{1} << 50; // in a bucket, so that all of them can be added up

	void add(int64_t us, int64_t count = 1);
	void add(const Histogram &other);

	int64_t count() const;
	bool empty() const { return counts_.empty(); }
	// The duration that this share of all (0.95) does not exceed, within relative_error; 0 of none.
	int64_t percentile_us(double share) const;
	// How many are in each bucket from first() on, without gaps.
	int first() const { return first_; }
	const std::vector<int64_t> &counts() const { return counts_; }
	// The bucket of a duration, and the duration that stands for a bucket.
	static int bucket_of(int64_t us);
	static int64_t duration_of(int bucket);

	// Appends a compact form: pairs of gap and count, as variable-length integers. About two bytes per bucket in use.
	void write(std::string &bytes) const;
	// Adds what was written. False when the bytes are not in that form.
	bool read(std::string_view bytes);

private:
	int64_t &at(int bucket);

	int first_ = 0;
	std::vector<int64_t> counts_;
};

// Integers of 7 bits a byte, the low ones first (LEB128); of 0 and more.
void write_varint(std::string &bytes, int64_t value);
// Takes one off the front. False when there is none.
bool take_varint(std::string_view &bytes, int64_t &value);

} // namespace quorbit
