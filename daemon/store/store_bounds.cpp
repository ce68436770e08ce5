// Keeping the store within its bounds: in steps so short that no packet waits for them.
#include "store/disk.h"
#include "store/step_timer.h"
#include "store/store.h"

#include "base/clock.h"

#include <algorithm>
#include <utility>

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

// What is left free inside the file has room for more than a transaction.
void Store::confine()
{
	constexpr int64_t most_room = int64_t{16} << 20;
	const int64_t file_bytes = used_bytes() + free_bytes();
	has_reserve_ = false; // it may be given up any time now
	confined_bytes_ = file_bytes - std::min(most_room, file_bytes / 4);
}

void Store::look_at_disk()
{
	const DiskSpace space = disk_space(database_.path());
	if (!is_confined() && space.free_bytes < space.least_bytes) confine();
	if (space.free_bytes < 2 * space.least_bytes) return;
	confined_bytes_ = INT64_MAX;
	if (!has_reserve_) has_reserve_ = make_reserve(database_.path());
}

bool Store::maintain(const StoreBounds &bounds, bool small)
{
	StepTimer timer(small ? 0ms : step_time);
	look_at_disk();
	const int64_t action_bytes = std::min(bounds.action_bytes, confined_bytes_);
	auto excess_bytes = [&] {
		const int64_t used = used_bytes();
		return std::max(used - event_bytes_ - rollup_.bytes() - bounds.action_bytes, used - confined_bytes_);
	};
	int64_t excess = excess_bytes();
	int64_t free = free_bytes();
	// Pages that were freed are used again; only many of them are worth moving others for.
	if (free > bounds.action_bytes / 4) shrinking_ = true;
	// What the last steps freed is in the log, and goes back when that is written back.
	if (free <= bounds.action_bytes / 8 && std::exchange(shrinking_, false)) checkpoint();
	if (!knows_holders(action_bytes, excess, timer)) return true;
	const int64_t now_ms = wall_clock_ms();
	const bool sums_wait = rollup_.wants_maintenance(bounds.sums, now_ms);
	if (printed_.empty() && event_bytes_ <= bounds.event_bytes && excess <= 0 && !shrinking_ && !sums_wait)
		return false;

	begin();
	const int before = sqlite3_total_changes(database_.handle());
	bool progress = false;
	while (!printed_.empty() && !timer.is_over()) remove_printed();
	while (event_bytes_ > bounds.event_bytes && !timer.is_over())
		remove_oldest_events(event_bytes_ - bounds.event_bytes);
	while (sums_wait && !timer.is_over() && rollup_.maintain(bounds.sums, now_ms)) continue;
	for (bool time = true; excess > 0 && time && remove_actions(excess, small ? 8 : 64); time = !timer.is_over()) {
		progress = true;
		excess = excess_bytes();
	}
	while (shrinking_ && free_bytes() > 0 && !timer.is_over()) database_.execute("PRAGMA incremental_vacuum(32)");
	// Tables alone may be more than a tiny bound: that is as good as it gets.
	progress |= sqlite3_total_changes(database_.handle()) != before || shrinking_;
	commit();
	return progress;
}

void Store::limit_tables()
{
	radar_.limit(wall_clock_ms());
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
