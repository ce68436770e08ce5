// Writing the two formats.
#include "export/metric_text.h"

#include <cstdio>
#include <iterator>

namespace quorbit {

namespace {

constexpr const char *type_names[] = {"gauge", "counter", "histogram"};

std::string escaped(std::string_view value)
{
	std::string out;
	for (char c : value) {
		if (c == '\\' || c == '"') out += '\\';
		if (c == '\n')
			out += "\\n";
		else
			out += c;
	}
	return out;
}

// Microseconds as seconds, without zeros at the end: "0.005", "10.0".
std::string seconds_text(int64_t us)
{
	char text[32];
	snprintf(
		text, sizeof text, "%lld.%06lld", static_cast<long long>(us / 1000000), static_cast<long long>(us % 1000000));
	std::string seconds = text;
	while (seconds.ends_with('0') && !seconds.ends_with(".0")) seconds.pop_back();
	return seconds;
}

} // namespace

const char *content_type_of(MetricFormat format)
{
	return format == MetricFormat::open_metrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
												: "text/plain; version=0.0.4; charset=utf-8";
}

MetricFormat metric_format_for(std::string_view accept)
{
	return accept.find("application/openmetrics-text") == std::string_view::npos ? MetricFormat::prometheus
																				 : MetricFormat::open_metrics;
}

void MetricText::family(const char *name, MetricType type, const char *help)
{
	name_ = name;
	type_ = type;
	std::string shown = name;
	if (type == MetricType::counter && format_ == MetricFormat::prometheus) shown += "_total";
	text_ += "# HELP " + shown + " " + help + "\n# TYPE " + shown + " " + type_names[static_cast<size_t>(type)] + "\n";
}

void MetricText::sample(const MetricLabels &labels, int64_t value)
{
	line(type_ == MetricType::counter ? "_total" : "", labels, std::to_string(value));
}

void MetricText::seconds(const MetricLabels &labels, int64_t us)
{
	line(type_ == MetricType::counter ? "_total" : "", labels, seconds_text(us));
}

void MetricText::histogram(
	const MetricLabels &labels, const int64_t *bounds_us, const int64_t *counts, size_t bounds, int64_t sum_us)
{
	int64_t count = 0;
	MetricLabels below = labels;
	below.emplace_back("le", "");
	for (size_t i = 0; i <= bounds; i++) {
		count += counts[i];
		below.back().second = i < bounds ? seconds_text(bounds_us[i]) : "+Inf";
		line("_bucket", below, std::to_string(count));
	}
	line("_sum", labels, seconds_text(sum_us));
	line("_count", labels, std::to_string(count));
}

void MetricText::line(const char *suffix, const MetricLabels &labels, const std::string &value)
{
	text_ += name_;
	text_ += suffix;
	char before = '{';
	for (const auto &[name, text] : labels) {
		text_ += std::exchange(before, ',');
		text_ += name;
		text_ += "=\"" + escaped(text) + "\"";
	}
	text_ += labels.empty() ? " " : "} ";
	text_ += value + "\n";
}

std::string MetricText::end()
{
	if (format_ == MetricFormat::open_metrics) text_ += "# EOF\n";
	return std::move(text_);
}

} // namespace quorbit
