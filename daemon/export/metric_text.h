// Metrics as text: Prometheus' own format, version 0.0.4
// (https://prometheus.io/docs/instrumenting/exposition_formats/), or OpenMetrics 1.0.0, which differs in the names of
// counters' families and in its end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorbit {

enum class MetricFormat { prometheus, open_metrics };

// The value of the Content-Type header.
const char *content_type_of(MetricFormat format);
// The format that an Accept header asks for: OpenMetrics where it is named, else Prometheus' own.
MetricFormat metric_format_for(std::string_view accept);

enum class MetricType { gauge, counter, histogram };

// Values in UTF-8; anything is allowed in them.
using MetricLabels = std::vector<std::pair<const char *, std::string>>;

// Writes families one after another: family(), and then its samples.
class MetricText {
public:
	explicit MetricText(MetricFormat format) : format_(format) {}

	// `name` is that of the family, without "_total"; `help` is one line.
	void family(const char *name, MetricType type, const char *help);
	void sample(const MetricLabels &labels, int64_t value);
	void seconds(const MetricLabels &labels, int64_t us);
	// A histogram of durations: how many are in each bucket, of which the upper bounds are given but for the last's,
	// and their sum.
	void histogram(
		const MetricLabels &labels, const int64_t *bounds_us, const int64_t *counts, size_t bounds, int64_t sum_us);

	// All of it; nothing may be written after that.
	std::string end();

private:
	void line(const char *suffix, const MetricLabels &labels, const std::string &value);

	const MetricFormat format_;
	const char *name_ = "";
	MetricType type_ = MetricType::gauge;
	std::string text_;
};

} // namespace quorbit
