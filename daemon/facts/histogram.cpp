// Adding up durations, and their compact form.
#include "facts/histogram.h"

#include "base/number.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace quorbit {

int Histogram::bucket_of(int64_t us)
{
	static const double per_log = 1 / std::log(gamma);
	if (us <= 0) return 0;
	int bucket = static_cast<int>(std::ceil(std::log(static_cast<double>(us)) * per_log)) + 1;
	return std::min(bucket, buckets - 1);
}

int64_t Histogram::duration_of(int bucket)
{
	// The value in the middle, by ratio, of what the bucket holds.
	return bucket <= 0 ? 0 : std::llround(2 * std::pow(gamma, bucket - 1) / (gamma + 1));
}

int64_t &Histogram::at(int bucket)
{
	if (counts_.empty()) first_ = bucket;
	if (bucket < first_) {
		counts_.insert(counts_.begin(), static_cast<size_t>(first_ - bucket), 0);
		first_ = bucket;
	}
	auto index = static_cast<size_t>(bucket - first_);
	if (index >= counts_.size()) counts_.resize(index + 1);
	return counts_[index];
}

void Histogram::add(int64_t us, int64_t count)
{
	add_bounded(at(bucket_of(us)), count, most_count);
}

void Histogram::add(const Histogram &other)
{
	if (other.counts_.empty()) return;
	at(other.first_);
	at(other.first_ + static_cast<int>(other.counts_.size()) - 1);
	int64_t *mine = &counts_[static_cast<size_t>(other.first_ - first_)];
	for (int64_t count : other.counts_) add_bounded(*mine++, count, most_count);
}

int64_t Histogram::count() const
{
	return std::accumulate(counts_.begin(), counts_.end(), int64_t{0});
}

int64_t Histogram::percentile_us(double share) const
{
	const int64_t all = count();
	if (all == 0) return 0;
	auto rank = std::clamp(static_cast<int64_t>(std::ceil(share * static_cast<double>(all))), int64_t{1}, all);
	size_t index = 0;
	for (int64_t seen = counts_[0]; seen < rank; seen += counts_[index]) index++;
	return duration_of(first_ + static_cast<int>(index));
}

void Histogram::write(std::string &bytes) const
{
	int next = 0;
	for (size_t i = 0; i < counts_.size(); i++) {
		if (counts_[i] == 0) continue;
		int bucket = first_ + static_cast<int>(i);
		write_varint(bytes, bucket - next);
		write_varint(bytes, counts_[i]);
		next = bucket + 1;
	}
}

bool Histogram::read(std::string_view bytes)
{
	int64_t gap, count, bucket = 0;
	while (!bytes.empty()) {
		if (!take_varint(bytes, gap) || !take_varint(bytes, count)) return false;
		if (gap >= buckets || bucket + gap >= buckets) return false;
		bucket += gap;
		add_bounded(at(static_cast<int>(bucket++)), count, most_count);
	}
	return true;
}

void write_varint(std::string &bytes, int64_t value)
{
	auto rest = static_cast<uint64_t>(std::max(value, int64_t{0}));
	for (; rest >= 0x80; rest >>= 7) bytes += static_cast<char>(rest | 0x80);
	bytes += static_cast<char>(rest);
}

bool take_varint(std::string_view &bytes, int64_t &value)
{
	uint64_t taken = 0;
	for (size_t i = 0; i < bytes.size() && i < 9; i++) {
		auto byte = static_cast<unsigned char>(bytes[i]);
		taken |= uint64_t{byte & 0x7Fu} << (7 * i);
		if (byte & 0x80) continue;
		bytes.remove_prefix(i + 1);
		value = static_cast<int64_t>(taken);
		return true;
	}
	return false;
}

} // namespace quorbit
