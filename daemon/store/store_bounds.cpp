// Keeping the store within its bounds: in steps so short that no packet waits for them.
#include "store/step_timer.h"
#include "store/store.h"

#include "base/clock.h"

namespace quorbit {

namespace {

using namespace std::chrono_literals;

// About what a row and its index entries take beside the packet.
constexpr int64_t event_row_bytes = 48;

} // namespace

int64_t Store::event_bytes(std::string_view packet)
{
	return static_cast<int64_t>(packet.size()) + event_row_bytes;
}

int64_t Store::used_bytes()
{
	used_pages_.step();
	int64_t pages = used_pages_.integer(0);
	used_pages_.reset();
	return pages * page_size_;
}

int64_t Store::free_bytes()
{
	return database_.integer("PRAGMA freelist_count") * page_size_;
}

bool Store::maintain(const StoreBounds &bounds, bool small)
{
	StepTimer timer(small ? 0ms : step_time);
	auto excess_bytes = [&] { return used_bytes() - event_bytes_ - rollup_.bytes() - bounds.action_bytes; };
	int64_t excess = excess_bytes();
	int64_t free = free_bytes();
	// Pages that were freed are used again; only many of them are worth moving others for.
	if (free > bounds.action_bytes / 4) shrinking_ = true;
	if (free <= bounds.action_bytes / 8) shrinking_ = false;
	if (!knows_holders(bounds.action_bytes, excess, timer)) return true;
	const int64_t now_ms = wall_clock_ms();
	const bool sums_wait = rollup_.wants_maintenance(bounds.sums, now_ms);
	if (printed_.empty() && event_bytes_ <= bounds.event_bytes && excess <= 0 && !shrinking_ && !sums_wait)
		return false;

	begin();
	const int before = sqlite3_total_changes(database_.handle());
	bool progress = false;
	while (!timer.is_over() && !printed_.empty()) remove_printed();
	while (!timer.is_over() && event_bytes_ > bounds.event_bytes)
		remove_oldest_events(event_bytes_ - bounds.event_bytes);
	while (sums_wait && !timer.is_over() && rollup_.maintain(bounds.sums, now_ms)) continue;
	for (; !timer.is_over() && excess > 0; excess = excess_bytes()) {
		if (!remove_actions(excess, small ? 8 : 64)) break;
		progress = true;
	}
	while (!timer.is_over() && shrinking_ && free_bytes() > 0) database_.execute("PRAGMA incremental_vacuum(32)");
	// Tables alone may be more than a tiny bound: that is as good as it gets.
	progress |= sqlite3_total_changes(database_.handle()) != before || shrinking_;
	commit();
	return progress;
}

void Store::limit_tables()
{
	keep_applications_.run();
	database_.execute("DELETE FROM dropped WHERE minute_ms < (SELECT max(minute_ms) FROM dropped) - 3 * 86400000");
	database_.execute(
		"DELETE FROM profile_order WHERE closed_ms IS NOT NULL AND id <= (SELECT max(id) FROM profile_order) - 100");
}

// What was freed is used again without the file growing, and a log that has been written back begins again at its
// front.
void Store::make_room(int64_t bytes)
{
	checkpoint();
	for (bool some = true; some && free_bytes() < bytes;) {
		begin();
		some = remove_actions(bytes, 4);
		commit();
		checkpoint();
	}
}

void Store::remove_oldest_events(int64_t bytes)
{
	int64_t last_id = 0, removed = 0;
	{
		Statement select(database_, "SELECT id, length(packet) FROM profile_event ORDER BY id LIMIT 512");
		while (removed < bytes && select.step()) {
			last_id = select.integer(0);
			removed += select.integer(1) + event_row_bytes;
		}
	}
	Statement(database_, "DELETE FROM profile_event WHERE id <= ?").bind(1, last_id).run();
	// What was estimated wrongly ends with the last row.
	event_bytes_ = last_id ? std::max(event_bytes_ - removed, int64_t{0}) : 0;
}

// Removes the next events of an application whose profile nobody waits for any more.
void Store::remove_printed()
{
	PrintedEvents &printed = printed_.back();
	int64_t removed = 0, from = printed.after_id;
	{
		Statement select(database_,
			"SELECT id, length(packet) FROM profile_event WHERE id > ? AND id <= ? AND application = ? ORDER BY id "
			"LIMIT 512");
		select.bind(1, printed.after_id).bind(2, printed.last_id).bind(3, printed.application);
		while (select.step()) {
			printed.after_id = select.integer(0);
			removed += select.integer(1) + event_row_bytes;
		}
	}
	event_bytes_ = std::max(event_bytes_ - removed, int64_t{0});
	Statement remove(database_, "DELETE FROM profile_event WHERE id > ? AND id <= ? AND application = ?");
	remove.bind(1, from).bind(2, printed.after_id).bind(3, printed.application).run();
	if (removed == 0) printed_.pop_back();
}

} // namespace quorbit
