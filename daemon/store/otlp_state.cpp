// One row of a table.
#include "store/otlp_state.h"

#include "store/export_state.h"
#include "store/followed_store.h"

namespace quorbit {

OtlpState read_otlp_state(Database &database)
{
	Statement select(database, "SELECT url, action_id, refused, evicted, sent_ms, failure FROM otlp");
	OtlpState state;
	if (!select.step()) return state;
	state.url = select.text(0);
	int column = 1;
	for (int64_t *value : {&state.action_id, &state.refused, &state.evicted, &state.sent_ms})
		*value = select.integer(column++);
	state.failure = select.text(column);
	return state;
}

void keep_otlp_state(Database &database, const OtlpState &state)
{
	Statement update(
		database, "UPDATE otlp SET url = ?1, action_id = ?2, refused = ?3, evicted = ?4, sent_ms = ?5, failure = ?6");
	update.bind(1, state.url);
	int parameter = 2;
	for (int64_t value : {state.action_id, state.refused, state.evicted, state.sent_ms})
		update.bind(parameter++, value);
	update.bind(parameter, state.failure).run();
}

OtlpProgress otlp_progress(const std::string &store_path)
{
	FollowedStore store(store_path, Database::Mode::read_only);
	Unstopped reading;
	OtlpProgress progress{read_otlp_state(store.current())};
	progress.waits_since_ms = oldest_after(store.current(), progress.state.action_id);
	return progress;
}

} // namespace quorbit
