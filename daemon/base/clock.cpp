// Times as text, and text as times.
#include "base/clock.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace quorbit {

namespace {

std::string format_time(const char *format, const struct tm &fields)
{
	char text[40];
	return {text, strftime(text, sizeof text, format, &fields)};
}

} // namespace

std::string local_time(int64_t wall_ms)
{
	time_t seconds = wall_ms / 1000;
	struct tm fields;
	return format_time("%Y-%m-%d %H:%M:%S", *localtime_r(&seconds, &fields));
}

std::string utc_time(int64_t wall_ms)
{
	time_t seconds = wall_ms / 1000;
	struct tm fields;
	char fraction[8];
	snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(wall_ms % 1000));
	return format_time("%Y-%m-%dT%H:%M:%S", *gmtime_r(&seconds, &fields)) + fraction;
}

std::string ago(int64_t wall_ms, int64_t now_wall_ms)
{
	int64_t seconds = std::max<int64_t>(0, now_wall_ms - wall_ms) / 1000;
	if (seconds < 120) return std::to_string(seconds) + " s ago";
	if (seconds < 7200) return std::to_string(seconds / 60) + " min ago";
	if (seconds < 172800) return std::to_string(seconds / 3600) + " h ago";
	return std::to_string(seconds / 86400) + " d ago";
}

int64_t wall_clock_ms()
{
	struct timespec now;
	clock_gettime(CLOCK_REALTIME, &now);
	return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

int64_t boot_wall_ms()
{
	struct timespec up;
	clock_gettime(CLOCK_BOOTTIME, &up);
	return wall_clock_ms() - (int64_t{up.tv_sec} * 1000 + up.tv_nsec / 1000000);
}

std::optional<int64_t> parse_seconds(std::string_view text)
{
	int64_t number = 0;
	auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
	if (failure != std::errc() || number <= 0 || number > 1000000000) return std::nullopt;
	std::string_view unit(end, text.data() + text.size());
	if (unit.empty() || unit == "s") return number;
	if (unit == "m") return number * 60;
	if (unit == "h") return number * 3600;
	if (unit == "d") return number * 86400;
	return std::nullopt;
}

std::optional<int64_t> parse_moment(std::string_view text, int64_t now_wall_ms)
{
	if (text == "now") return now_wall_ms;
	if (auto seconds = parse_seconds(text)) return now_wall_ms - *seconds * 1000;
	for (const char *format :
		{"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
		struct tm fields = {};
		fields.tm_isdst = -1;
		const std::string copy(text);
		const char *end = strptime(copy.c_str(), format, &fields);
		if (end && *end == '\0') return int64_t{mktime(&fields)} * 1000;
	}
	return std::nullopt;
}

std::optional<int64_t> parse_duration_us(std::string_view text)
{
	double number = 0;
	auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
	if (failure != std::errc() || !(number >= 0) || number > 1e12) return std::nullopt;
	const std::string_view unit(end, text.data() + text.size());
	constexpr std::pair<std::string_view, double> units[] = {{"us", 1}, {"µs", 1}, {"ms", 1e3}, {"s", 1e6}, {"m", 6e7}};
	for (const auto &[name, us] : units) {
		if (unit == name) return static_cast<int64_t>(number * us);
	}
	return std::nullopt;
}

} // namespace quorbit
