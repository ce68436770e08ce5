// Which actions make room for others: what Holders says, told of the rows of the store.
#include "base/clock.h"
#include "store/step_timer.h"
#include "store/store.h"

#include <algorithm>

namespace quorbit {

namespace {

// About what a row and its index entries take beside the packet.
constexpr int64_t action_row_bytes = 300;
constexpr int64_t rows_at_once = 256;

// Calls on_action for each action of a query that begins with "SELECT" HELD_COLUMNS.
#define HELD_COLUMNS \
	" id, received_ms, duration_ms, length(packet), ifnull(account, -1), application, name FROM action "

template <typename OnAction>
void each_held(Statement &select, OnAction on_action)
{
	while (select.step()) {
		const std::string application = select.text(5), name = select.text(6);
		bool more = on_action(HeldAction{select.integer(0), select.integer(1), select.integer(2),
			select.integer(3) + action_row_bytes, static_cast<uint32_t>(select.integer(4)), application, name});
		if (!more) break;
	}
}

} // namespace

int64_t Store::action_bytes(size_t packet_bytes)
{
	return static_cast<int64_t>(packet_bytes) + action_row_bytes;
}

// A step of reading who holds what, as soon as the store is nearly full. True when nothing was left to read.
bool Store::knows_holders(int64_t bound_bytes, int64_t excess_bytes, StepTimer &timer)
{
	if (holders_ && holders_->bound_bytes() != bound_bytes) holders_.reset();
	if (!holders_) {
		if (excess_bytes < -bound_bytes / 8) return true;
		holders_.emplace(bound_bytes);
		former_examples_.clear();
		judged_id_ = read_id_ = 0;
		all_read_ = false;
	}
	if (all_read_) return true;
	Statement select(database_, "SELECT" HELD_COLUMNS "WHERE id > ? ORDER BY id LIMIT ?");
	while (!all_read_ && !timer.is_over()) {
		int64_t rows = 0;
		select.bind(1, read_id_).bind(2, rows_at_once);
		each_held(select, [&](const HeldAction &action) {
			holders_->add(action);
			read_id_ = action.id;
			return ++rows > 0;
		});
		select.reset();
		all_read_ = rows < rows_at_once;
	}
	return false;
}

// Of which keys the action is the example. Actions are asked for in the order of their numbers, that is by hours.
const ExampleOf &Store::example_of(const HeldAction &action)
{
	static const ExampleOf none;
	const int64_t hour = action.received_ms / hour_ms;
	if (action.id > rollup_.summed_id()) rollup_.write();
	if (hour != examples_hour_ || action.id > examples_summed_id_) {
		examples_ = rollup_.examples_of(hour);
		examples_hour_ = hour;
		examples_summed_id_ = rollup_.summed_id();
	}
	auto found = examples_.find(action.id);
	return found == examples_.end() ? none : found->second;
}

// Those that stay no longer as examples may stay as what they are.
void Store::judge_former_examples(Holders::Removal &removal)
{
	if (former_examples_.empty() && holders_->has_many_examples())
		former_examples_ = holders_->thin_examples(rollup_.lifetimes());
	Statement select(database_, "SELECT" HELD_COLUMNS "WHERE id = ?");
	for (; !former_examples_.empty() && !removal.is_enough(); former_examples_.pop_back()) {
		select.bind(1, former_examples_.back());
		each_held(select, [&](const HeldAction &action) {
			holders_->judge_again(action, removal);
			return false;
		});
		select.reset();
	}
}

// Removes actions that hold about `bytes`, at most `most`. False when there is nothing to remove.
bool Store::remove_actions(int64_t bytes, int64_t most)
{
	if (!holders_ || !all_read_) return remove_oldest_actions(bytes, most);
	Holders::Removal removal{{}, 0, bytes, static_cast<size_t>(most)};
	holders_->take_surplus(removal);
	judge_former_examples(removal);
	bool judged = false;
	if (!removal.is_enough()) {
		Statement select(database_, "SELECT" HELD_COLUMNS "WHERE id > ? ORDER BY id LIMIT ?");
		select.bind(1, judged_id_).bind(2, most);
		each_held(select, [&](const HeldAction &action) {
			judged = true;
			judged_id_ = action.id;
			holders_->judge(action, example_of(action), removal);
			return !removal.is_enough();
		});
	}
	if (removal.ids.empty() && !judged) holders_->take_oldest(removal);
	auto is_unsummed = [this](int64_t id) { return id > rollup_.summed_id(); };
	if (std::any_of(removal.ids.begin(), removal.ids.end(), is_unsummed)) rollup_.write();
	Statement remove(database_, "DELETE FROM action WHERE id = ?");
	for (int64_t id : removal.ids) remove.bind(1, id).run();
	return judged || !removal.ids.empty();
}

// Removes as many of the oldest actions as hold about `bytes`, at least one and at most `most`. False when there is
// none.
bool Store::remove_oldest_actions(int64_t bytes, int64_t most)
{
	int64_t last_id = 0;
	{
		Statement select(database_, "SELECT id, length(packet) FROM action ORDER BY id LIMIT ?");
		select.bind(1, most);
		while (bytes > 0 && select.step()) {
			last_id = select.integer(0);
			bytes -= select.integer(1) + action_row_bytes;
		}
	}
	if (last_id > rollup_.summed_id()) rollup_.write();
	holders_.reset(); // they may know of what goes
	Statement(database_, "DELETE FROM action WHERE id <= ?").bind(1, last_id).run();
	return last_id != 0;
}

} // namespace quorbit
