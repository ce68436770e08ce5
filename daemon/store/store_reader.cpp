// Queries of the command line.
#include "store/store_reader.h"

#include "store/layout.h"

#include "base/clock.h"

namespace quorbit {

namespace {

#define ROW_COLUMNS                                                                                                   \
	"id, received_ms, process, application, name, duration_ms, database_ms, cache_ms, external_ms, code_ms, status, " \
	"error"
constexpr int packet_column = 12; // after those

ActionRow row_of(Statement &select)
{
	ActionRow row{select.integer(0), select.integer(1), select.integer(2), select.text(3), select.text(4)};
	row.duration_ms = select.integer(5);
	row.database_ms = select.integer(6);
	row.cache_ms = select.integer(7);
	row.external_ms = select.integer(8);
	row.code_ms = select.integer(9);
	row.status = select.integer(10);
	row.error = select.integer(11) != 0;
	return row;
}

} // namespace

StoreReader::StoreReader(const std::string &path, bool for_orders)
	: database_(path, for_orders ? Database::Mode::read_write : Database::Mode::read_only)
{
	require_newest_layout(database_);
}

std::vector<ActionRow> StoreReader::rows(Statement &select)
{
	std::vector<ActionRow> rows;
	while (select.step()) rows.push_back(row_of(select));
	return rows;
}

std::vector<ActionRow> StoreReader::newest(int64_t most, const std::string &application)
{
	Statement select(
		database_, "SELECT " ROW_COLUMNS " FROM action WHERE ?1 = '' OR application = ?1 ORDER BY id DESC LIMIT ?2");
	return rows(select.bind(1, application).bind(2, most));
}

std::vector<ActionRow> StoreReader::after(int64_t id, const std::string &application)
{
	Statement select(database_,
		"SELECT " ROW_COLUMNS " FROM action WHERE id > ?2 AND (?1 = '' OR application = ?1) ORDER BY id LIMIT 1000");
	return rows(select.bind(1, application).bind(2, id));
}

int64_t StoreReader::last_id()
{
	return database_.integer("SELECT max(id) FROM action");
}

void StoreReader::each_since(
	int64_t wall_ms, const std::string &application, const std::function<void(const ActionRow &)> &on_row)
{
	Statement select(
		database_, "SELECT " ROW_COLUMNS " FROM action WHERE received_ms >= ?2 AND (?1 = '' OR application = ?1)");
	select.bind(1, application).bind(2, wall_ms);
	while (select.step()) on_row(row_of(select));
}

std::optional<StoredAction> StoreReader::action(int64_t id)
{
	Statement select(database_, "SELECT " ROW_COLUMNS ", packet FROM action WHERE id = ?");
	if (!select.bind(1, id).step()) return std::nullopt;
	auto action = read_action(select.text(packet_column));
	if (!action) throw SqliteError("the packet of action " + std::to_string(id) + " is damaged");
	return StoredAction{row_of(select), std::move(*action)};
}

std::vector<StoredAction> StoreReader::related(const StoredAction &to, const std::vector<std::string> &tracer_ids)
{
	std::vector<StoredAction> found;
	auto collect = [&](const char *condition, const std::string &value) {
		if (value.empty()) return;
		const std::string selection = "SELECT " ROW_COLUMNS ", packet FROM action WHERE ";
		Statement select(database_, selection + condition + " = ? ORDER BY id LIMIT 100");
		select.bind(1, value);
		while (select.step() && found.size() < 100) {
			ActionRow row = row_of(select);
			bool known = row.id == to.row.id;
			for (const StoredAction &other : found) known = known || other.row.id == row.id;
			auto action = known ? std::nullopt : read_action(select.text(packet_column));
			if (action) found.push_back({std::move(row), std::move(*action)});
		}
	};
	collect("transaction_id", to.action.transaction_id);
	for (const std::string &tracer_id : tracer_ids) collect("tracer_id", tracer_id);
	return found;
}

std::vector<ApplicationRow> StoreReader::applications()
{
	Statement select(database_,
		"SELECT name, query_ms, query_process, sapi, php_version, given, packet_ms, packet_process, packets "
		"FROM application ORDER BY name");
	std::vector<ApplicationRow> rows;
	while (select.step()) {
		rows.push_back({select.text(0), select.integer(1), select.integer(2), select.text(3), select.text(4),
			select.text(5), select.integer(6), select.integer(7), select.integer(8)});
	}
	return rows;
}

int64_t StoreReader::order_profile(const std::string &application, int64_t seconds)
{
	OrderLock &orders = orders_.emplace_back(database_.path());
	// Held before anybody can see the order: the daemon closes what nobody holds.
	database_.execute("BEGIN IMMEDIATE");
	Statement insert(database_, "INSERT INTO profile_order (application, seconds, ordered_ms) VALUES (?, ?, ?)");
	insert.bind(1, application).bind(2, seconds).bind(3, wall_clock_ms()).run();
	int64_t id = database_.last_id();
	orders.hold(id);
	database_.execute("COMMIT");
	return id;
}

void StoreReader::cancel_order(int64_t id)
{
	Statement(database_, "UPDATE profile_order SET ended_ms = ? WHERE id = ? AND ended_ms IS NULL")
		.bind(1, wall_clock_ms())
		.bind(2, id)
		.run();
}

int64_t StoreReader::stop_profiles(const std::string &application)
{
	Statement stop(database_, "UPDATE profile_order SET ended_ms = ? WHERE application = ? AND ended_ms IS NULL");
	stop.bind(1, wall_clock_ms()).bind(2, application).run();
	return sqlite3_changes(database_.handle());
}

std::vector<ProfileRow> StoreReader::open_profiles()
{
	Statement select(database_,
		"SELECT id, application, seconds, ordered_ms, started_ms, process FROM profile_order WHERE ended_ms IS NULL "
		"ORDER BY id");
	std::vector<ProfileRow> rows;
	while (select.step()) {
		rows.push_back({select.integer(0), select.text(1), select.integer(2), select.integer(3), select.integer(4),
			select.integer(5)});
	}
	return rows;
}

bool StoreReader::order_ended(int64_t id)
{
	Statement select(database_, "SELECT ended_ms IS NOT NULL FROM profile_order WHERE id = ?");
	return !select.bind(1, id).step() || select.integer(0) != 0;
}

std::optional<std::pair<int64_t, int64_t>> StoreReader::order_start(int64_t id)
{
	Statement select(
		database_, "SELECT process, started_ms FROM profile_order WHERE id = ? AND started_ms IS NOT NULL");
	if (!select.bind(1, id).step()) return std::nullopt;
	return std::pair(select.integer(0), select.integer(1));
}

void StoreReader::each_profile_event(
	const std::string &application, int64_t since_ms, const std::function<void(const ProfileEvent &)> &on_event)
{
	Statement select(
		database_, "SELECT packet FROM profile_event WHERE received_ms >= ? AND application = ? ORDER BY thread, id");
	select.bind(1, since_ms).bind(2, application);
	while (select.step()) {
		if (auto event = read_profile_event(select.text(0))) on_event(*event);
	}
}

} // namespace quorbit
