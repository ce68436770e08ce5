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

ExportProgress export_progress(const std::string &store_path)
{
	FollowedStore store(store_path, Database::Mode::read_only);
	Unstopped reading;
	ExportProgress progress{read_export_state(store.current())};
	Statement oldest(store.current(), "SELECT received_ms FROM action WHERE id > ? ORDER BY id LIMIT 1");
	if (oldest.bind(1, progress.state.action_id).step()) progress.waits_since_ms = oldest.integer(0);
	return progress;
}

} // namespace quorbit
