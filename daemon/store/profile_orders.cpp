// Profile orders as SQL.
#include "store/profile_orders.h"

#include "base/clock.h"
#include "store/layout.h"

namespace quorbit {

ProfileOrders::ProfileOrders(const std::string &path)
	: store_(path, Database::Mode::read_write), path_(path), identity_(counter("identity"))
{
}

int64_t ProfileOrders::counter(const std::string &name)
{
	return store_.current().integer(("SELECT value FROM counter WHERE name = '" + name + "'").c_str());
}

int64_t ProfileOrders::order(const std::string &application, int64_t seconds)
{
	OrderLock &lock = locks_.emplace_back(path_);
	Database &database = store_.current();
	// Held before anybody can see the order: the daemon closes what nobody holds.
	database.execute("BEGIN IMMEDIATE");
	Statement insert(database, "INSERT INTO profile_order (application, seconds, ordered_ms) VALUES (?, ?, ?)");
	insert.bind(1, application).bind(2, seconds).bind(3, wall_clock_ms()).run();
	int64_t id = database.last_id();
	lock.hold(id);
	database.execute("COMMIT");
	return id;
}

void ProfileOrders::cancel(int64_t id)
{
	if (ended(id)) return;
	Statement cancel(store_.current(), "UPDATE profile_order SET ended_ms = ? WHERE id = ?");
	cancel.bind(1, wall_clock_ms()).bind(2, id).run();
}

int64_t ProfileOrders::stop(const std::string &application)
{
	Database &database = store_.current();
	Statement stop(database, "UPDATE profile_order SET ended_ms = ? WHERE application = ? AND ended_ms IS NULL");
	stop.bind(1, wall_clock_ms()).bind(2, application).run();
	return sqlite3_changes(database.handle());
}

bool ProfileOrders::ended(int64_t id)
{
	if (counter("identity") != identity_) return true;
	Statement select(store_.current(), "SELECT ended_ms IS NOT NULL FROM profile_order WHERE id = ?");
	return !select.bind(1, id).step() || select.integer(0) != 0;
}

std::optional<std::pair<int64_t, int64_t>> ProfileOrders::start_of(int64_t id)
{
	Statement select(
		store_.current(), "SELECT process, started_ms FROM profile_order WHERE id = ? AND started_ms IS NOT NULL");
	if (!select.bind(1, id).step()) return std::nullopt;
	return std::pair(select.integer(0), select.integer(1));
}

std::vector<ProfileRow> open_profiles(const std::string &path)
{
	Database database(path, Database::Mode::read_only);
	require_newest_layout(database);
	Statement select(database,
		"SELECT id, application, seconds, ordered_ms, started_ms, process FROM profile_order WHERE ended_ms IS NULL "
		"ORDER BY id");
	std::vector<ProfileRow> rows;
	while (select.step()) {
		rows.push_back({select.integer(0), select.text(1), select.integer(2), select.integer(3), select.integer(4),
			select.integer(5)});
	}
	return rows;
}

} // namespace quorbit
