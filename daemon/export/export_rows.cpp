// Reading rows and writing them in the other form: actions, and collecting them.
#include "export/export_rows.h"

#include "base/clock.h"
#include "store/action_columns.h"
#include "store/fleet_layout.h"

namespace quorbit {

namespace {

constexpr size_t most_batch_bytes = size_t{10} << 20;
constexpr size_t most_waiting_bytes = size_t{4} << 20; // of a table whose rows may be sent in any parts

void append_listed(RowWriter &row, Statement &select, int at)
{
	for (const ActionColumn &column : action_columns) {
		if (std::holds_alternative<std::string ActionRow::*>(column.field))
			row.text(select.text(at));
		else if (std::holds_alternative<bool ActionRow::*>(column.field))
			row.number(static_cast<uint8_t>(select.integer(at) != 0));
		else if (std::holds_alternative<int64_t ActionRow::*>(column.field))
			row.number(select.integer(at));
		else
			row.nullable(select.is_null(at) ? std::nullopt : std::optional(select.integer(at)));
		at++;
	}
}

} // namespace

void Inserts::add(const char *table, const RowWriter &row)
{
	Gzip &rows = waiting_[table];
	rows.add(row.bytes);
	bytes_ += row.bytes.size();
	// Those of actions are one block, which is there as a whole or not at all.
	if (rows.taken() < most_waiting_bytes || std::string_view(table) == "action") return;
	send(table, rows);
	waiting_.erase(table);
}

void Inserts::send(const char *table, Gzip &rows)
{
	static std::atomic<int64_t> sent = 0;
	const std::string id = id_ + "-" + std::to_string(wall_clock_ms()) + "-" + std::to_string(++sent);
	server_.insert(insert_into(table), rows.finish(), id);
}

void Inserts::send()
{
	for (auto &[table, rows] : waiting_) send(table, rows);
	waiting_.clear();
}

bool add_actions(Database &database, const ExportSource &source, const std::set<int64_t> &arrived, Inserts &inserts,
	ExportState &state)
{
	Statement select(database,
		"SELECT id, account, transaction_id, tracer_id, packet" + action_column_names() +
			" FROM action WHERE id > ? ORDER BY id");
	constexpr int first_listed = 5, received = first_listed;
	static_assert(std::get<int64_t ActionRow::*>(action_columns[0].field) == &ActionRow::received_ms);
	select.bind(1, state.action_id);
	while (inserts.bytes() < most_batch_bytes) {
		if (!select.step()) return false;
		const int64_t id = select.integer(0);
		// Numbers are given out without a gap: who is missing was evicted.
		state.evicted += id - state.action_id - 1;
		state.action_id = id;
		if (arrived.contains(id)) continue;
		RowWriter row;
		row.number(day_of(select.integer(received)));
		row.number(static_cast<uint32_t>(source.number));
		row.text(source.host);
		row.number(fleet_id(source.number, id));
		row.number(static_cast<uint32_t>(select.integer(1)));
		row.text(select.text(2));
		row.text(select.text(3));
		append_listed(row, select, first_listed);
		row.text(select.text(4));
		inserts.add("action", row);
	}
	return true;
}

} // namespace quorbit
