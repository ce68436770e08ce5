// The wall clock, and times and spans of time as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorbit {

// Units of the times and spans that are counted in milliseconds.
constexpr int64_t minute_ms = 60000, hour_ms = 60 * minute_ms, day_ms = 24 * hour_ms;

// Local time "2024-05-31 13:45:12" of milliseconds since 1970.
std::string local_time(int64_t wall_ms);

// "2024-05-31T11:45:12.345Z"
std::string utc_time(int64_t wall_ms);

// "12 s ago", "5 min ago", "3 h ago", "2 d ago"
std::string ago(int64_t wall_ms, int64_t now_wall_ms);

// Milliseconds since 1970.
int64_t wall_clock_ms();

// When the host was started, as the wall clock now has it.
int64_t boot_wall_ms();

// Seconds of "90", "90s", "15m", "2h", "7d"; nothing for anything else and for what is not positive.
std::optional<int64_t> parse_seconds(std::string_view text);

// Milliseconds since 1970 of "2026-11-21T10:00", also with seconds, with a space for the T, or a date alone, by local
// time; of "15m" as long before `now_wall_ms`; of "now". Nothing for anything else.
std::optional<int64_t> parse_moment(std::string_view text, int64_t now_wall_ms);

// Microseconds of "500us", "500ms", "1.5s" or "2m"; nothing for anything else.
std::optional<int64_t> parse_duration_us(std::string_view text);

} // namespace quorbit
