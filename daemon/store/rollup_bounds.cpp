// What is no longer kept of the sums.
#include "base/clock.h"
#include "store/rollup.h"

#include <algorithm>

namespace quorbit {

namespace {

constexpr int64_t minutes_per_day = 1440, hours_per_day = 24, minutes_per_hour = 60;
constexpr int64_t row_bytes = 24;       // as in rollup.cpp
constexpr int64_t fewest_minutes = 120; // are kept whatever they take
constexpr int64_t swept_keys = 200;     // in one step

} // namespace

// Removes the oldest minute, or hour, of a kind, when it is before `before`. False when there was none.
bool Rollup::remove_oldest_of(const char *table, const char *column, int64_t kind, int64_t before)
{
	const std::string rows = std::string(" FROM ") + table + " WHERE kind = " + std::to_string(kind);
	Statement oldest(database_, std::string("SELECT min(") + column + ")" + rows);
	if (!oldest.step() || oldest.is_null(0) || oldest.integer(0) >= before) return false;
	const std::string those = rows + " AND " + column + " = " + std::to_string(oldest.integer(0));
	bytes_ -= database_.integer(("SELECT sum(length(sums) + " + std::to_string(row_bytes) + ")" + those).c_str());
	bytes_ = std::max(bytes_, int64_t{0});
	database_.execute(("DELETE" + those).c_str());
	keep_counters();
	return true;
}

bool Rollup::remove_rows(const char *table, const char *column, int64_t before)
{
	bool some = false;
	for (int64_t kind = 1; kind < static_cast<int64_t>(key_kinds); kind++)
		some |= remove_oldest_of(table, column, kind, before);
	return some;
}

// Beyond the bytes: the oldest minutes, but for the last two hours; then the oldest hours.
bool Rollup::remove_oldest()
{
	auto newest = database_.integer("SELECT max(minute) FROM sum_minute WHERE kind = 1");
	if (remove_rows("sum_minute", "minute", newest - fewest_minutes)) return true;
	return remove_rows("sum_hour", "hour", newest / minutes_per_hour - 1);
}

// The next keys by number: those that have not been seen for long, or are too many, go, and with them what was in them;
// of the others what is too old. False after the last one.
bool Rollup::sweep_keys(int64_t before_hour)
{
	struct Swept {
		int64_t id;
		bool old;
	};
	std::vector<Swept> keys;
	{
		Statement select(database_, "SELECT id, last_ms < ?2 FROM sum_key WHERE id > ?1 ORDER BY id LIMIT ?3");
		select.bind(1, swept_key_).bind(2, before_hour * minutes_per_hour * minute_ms).bind(3, swept_keys);
		while (select.step()) keys.push_back({select.integer(0), select.integer(1) != 0});
	}
	Statement uses(database_, "DELETE FROM use_hour WHERE part = ? AND hour < ?");
	Statement key(database_, "DELETE FROM sum_key WHERE id = ?");
	for (const Swept &swept : keys) {
		uses.bind(1, swept.id).bind(2, swept.old ? INT64_MAX : before_hour).run();
		if (swept.old) key.bind(1, swept.id).run(), known_.clear();
		swept_key_ = swept.id;
	}
	if (!keys.empty()) return true;
	swept_key_ = 0;
	for (int64_t kind = 1; kind < static_cast<int64_t>(key_kinds); kind++) limit_keys(kind);
	return false;
}

void Rollup::limit_keys(int64_t kind)
{
	Statement surplus(database_,
		"DELETE FROM sum_key WHERE id IN (SELECT id FROM sum_key WHERE kind = ? ORDER BY last_ms DESC, id DESC "
		"LIMIT -1 OFFSET ?)");
	surplus.bind(1, kind).bind(2, most_known_keys).run();
	if (sqlite3_changes(database_.handle()) > 0) known_.clear();
}

bool Rollup::wants_maintenance(const SumBounds &bounds, int64_t now_wall_ms) const
{
	return bytes_ > bounds.bytes || now_wall_ms / minute_ms != swept_minute_;
}

bool Rollup::maintain(const SumBounds &bounds, int64_t now_wall_ms)
{
	const int64_t now_minute = now_wall_ms / minute_ms;
	if (bytes_ > bounds.bytes && remove_oldest()) return true;
	if (now_minute == swept_minute_) return false;
	if (remove_rows("sum_minute", "minute", now_minute - bounds.minute_days * minutes_per_day)) return true;
	database_.execute(("DELETE FROM machine_minute WHERE minute < " +
		std::to_string(now_minute - bounds.minute_days * minutes_per_day))
						  .c_str());
	const int64_t first_hour = now_minute / minutes_per_hour - bounds.hour_days * hours_per_day;
	if (remove_rows("sum_hour", "hour", first_hour) || sweep_keys(first_hour)) return true;
	swept_minute_ = now_minute;
	return false;
}

} // namespace quorbit
