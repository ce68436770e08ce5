// One row of a table.
#include "store/export_state.h"

#include "store/followed_store.h"

namespace quorbit {

ExportState read_export_state(Database &database)
{
	Statement select(database,
		"SELECT target, action_id, summed_id, minute, release_id, tables_ms, evicted, sent_ms, url, failure FROM "
		"export");
	ExportState state;
	if (!select.step()) return state;
	int column = 0;
	for (int64_t *value : {&state.target, &state.action_id, &state.summed_id, &state.minute, &state.release_id,
			 &state.tables_ms, &state.evicted, &state.sent_ms})
		*value = select.integer(column++);
	state.url = select.text(column++);
	state.failure = select.text(column);
	return state;
}

void keep_export_state(Database &database, const ExportState &state)
{
	Statement update(database,
		"UPDATE export SET target = ?1, action_id = ?2, summed_id = ?3, minute = ?4, release_id = ?5, "
		"tables_ms = ?6, evicted = ?7, sent_ms = ?8, url = ?9, failure = ?10");
	int parameter = 1;
	for (int64_t value : {state.target, state.action_id, state.summed_id, state.minute, state.release_id,
			 state.tables_ms, state.evicted, state.sent_ms})
		update.bind(parameter++, value);
	update.bind(parameter, state.url).bind(parameter + 1, state.failure).run();
}

int64_t oldest_after(Database &database, int64_t action_id)
{
	Statement oldest(database, "SELECT received_ms FROM action WHERE id > ? ORDER BY id LIMIT 1");
	return oldest.bind(1, action_id).step() ? oldest.integer(0) : 0;
}

ExportProgress export_progress(const std::string &store_path)
{
	FollowedStore store(store_path, Database::Mode::read_only);
	Unstopped reading;
	ExportProgress progress{read_export_state(store.current())};
	progress.waits_since_ms = oldest_after(store.current(), progress.state.action_id);
	return progress;
}

} // namespace quorbit
