// The migrations and how they are run.
#include "store/layout.h"

#include <iterator>

namespace quorbit {

namespace {

constexpr const char *first_layout = R"sql(
CREATE TABLE action (
  id INTEGER PRIMARY KEY,
  received_ms INTEGER NOT NULL,
  process INTEGER NOT NULL,
  application TEXT NOT NULL,
  name TEXT NOT NULL,
  duration_ms INTEGER NOT NULL,
  database_ms INTEGER NOT NULL,
  cache_ms INTEGER NOT NULL,
  external_ms INTEGER NOT NULL,
  code_ms INTEGER NOT NULL,
  status INTEGER NOT NULL,
  error INTEGER NOT NULL,
  transaction_id TEXT,
  tracer_id TEXT,
  packet BLOB NOT NULL);
CREATE INDEX action_received ON action (received_ms);
CREATE INDEX action_transaction ON action (transaction_id) WHERE transaction_id IS NOT NULL;
CREATE INDEX action_tracer ON action (tracer_id) WHERE tracer_id IS NOT NULL;
CREATE TABLE profile_event (
  id INTEGER PRIMARY KEY,
  received_ms INTEGER NOT NULL,
  application TEXT NOT NULL,
  thread INTEGER NOT NULL,
  packet BLOB NOT NULL);
CREATE INDEX profile_event_received ON profile_event (received_ms);
CREATE TABLE profile_order (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  application TEXT NOT NULL,
  seconds INTEGER NOT NULL,
  ordered_ms INTEGER NOT NULL,
  started_ms INTEGER,
  process INTEGER);
CREATE TABLE application (
  name TEXT PRIMARY KEY,
  query_ms INTEGER,
  query_process INTEGER,
  sapi TEXT,
  php_version TEXT,
  given TEXT,
  packet_ms INTEGER,
  packet_process INTEGER,
  packets INTEGER NOT NULL DEFAULT 0,
  seen_ms INTEGER NOT NULL) WITHOUT ROWID;
)sql";

// Numbers that are given out once: the highest that any action or profile event has had, whether it is still there or
// not.
constexpr const char *numbers_given_once = R"sql(
CREATE TABLE counter (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;
INSERT INTO counter SELECT 'action', ifnull(max(id), 0) FROM action;
INSERT INTO counter SELECT 'profile_event', ifnull(max(id), 0) FROM profile_event;
DROP INDEX profile_event_received;
ALTER TABLE profile_order ADD COLUMN ended_ms INTEGER;
ALTER TABLE profile_order ADD COLUMN closed_ms INTEGER;
UPDATE profile_order SET ended_ms = ordered_ms, closed_ms = ordered_ms;
)sql";

constexpr const char *what_was_dropped = R"sql(
CREATE TABLE dropped (minute_ms INTEGER, application TEXT, reason TEXT, count INTEGER NOT NULL,
  PRIMARY KEY (minute_ms, application, reason)) WITHOUT ROWID;
)sql";

// Of actions whose packet has a details record: figures before they were cut, and the path of the request.
constexpr const char *exact_figures = R"sql(
ALTER TABLE action ADD COLUMN duration_us INTEGER;
ALTER TABLE action ADD COLUMN database_us INTEGER;
ALTER TABLE action ADD COLUMN cache_us INTEGER;
ALTER TABLE action ADD COLUMN external_us INTEGER;
ALTER TABLE action ADD COLUMN statements INTEGER;
ALTER TABLE action ADD COLUMN path TEXT;
)sql";

// Of the process that sent it; unknown of what is there already.
constexpr const char *account_of_sender = "ALTER TABLE action ADD COLUMN account INTEGER";

// Sums by minute and by hour (epoch minutes and hours) of each key; of two keys, an action and what was in it, by hour.
// Keys are removed when they have not been seen for long: sums of a key that is not there belong to "(others)".
constexpr const char *sums_of_keys = R"sql(
CREATE TABLE sum_key (
  id INTEGER PRIMARY KEY,
  kind INTEGER NOT NULL,
  application TEXT NOT NULL,
  name TEXT NOT NULL,
  vendor TEXT NOT NULL,
  subject TEXT NOT NULL,
  verb TEXT NOT NULL,
  place TEXT NOT NULL,
  finding TEXT NOT NULL,
  suggestion TEXT NOT NULL,
  finding_ms INTEGER NOT NULL,
  error_class TEXT NOT NULL,
  message TEXT NOT NULL,
  first_ms INTEGER NOT NULL,
  last_ms INTEGER NOT NULL);
CREATE UNIQUE INDEX sum_key_name ON sum_key (kind, application, name);
CREATE TABLE sum_minute (kind INTEGER, minute INTEGER, key INTEGER, sums BLOB NOT NULL,
  PRIMARY KEY (kind, minute, key)) WITHOUT ROWID;
CREATE TABLE sum_hour (kind INTEGER, hour INTEGER, key INTEGER, sums BLOB NOT NULL,
  PRIMARY KEY (kind, hour, key)) WITHOUT ROWID;
CREATE TABLE use_hour (part INTEGER, hour INTEGER, action INTEGER, kind INTEGER NOT NULL, sums BLOB NOT NULL,
  PRIMARY KEY (part, hour, action)) WITHOUT ROWID;
CREATE INDEX use_hour_action ON use_hour (action, kind, hour);
CREATE TABLE machine_minute (minute INTEGER, pool TEXT, samples INTEGER NOT NULL, load_milli INTEGER NOT NULL,
  memory_bytes INTEGER NOT NULL, available_bytes INTEGER NOT NULL, busy INTEGER NOT NULL, idle INTEGER NOT NULL,
  most_busy INTEGER NOT NULL, PRIMARY KEY (minute, pool)) WITHOUT ROWID;
CREATE TABLE release (id INTEGER PRIMARY KEY, at_ms INTEGER NOT NULL, name TEXT NOT NULL, application TEXT NOT NULL);
INSERT INTO counter SELECT 'summed', value FROM counter WHERE name = 'action';
INSERT INTO counter VALUES ('sum_key', 0), ('sum_bytes', 0);
)sql";

// A number of the store's own, by which its readers know it from the one that was there before. A double holds it.
constexpr const char *identity = "INSERT INTO counter VALUES ('identity', random() & 0xffffffffffff)";
constexpr const char *callers_of_queries = "ALTER TABLE sum_key ADD COLUMN caller TEXT NOT NULL DEFAULT ''";

// How far it has been sent to the store of a fleet (store/export_state.h): one row.
constexpr const char *state_of_export = R"sql(
CREATE TABLE export (target INTEGER NOT NULL, action_id INTEGER NOT NULL, summed_id INTEGER NOT NULL, minute INTEGER NOT NULL,
  release_id INTEGER NOT NULL, tables_ms INTEGER NOT NULL, evicted INTEGER NOT NULL, sent_ms INTEGER NOT NULL, url TEXT NOT NULL,
  failure TEXT NOT NULL);
INSERT INTO export VALUES (0, 0, 0, 0, 0, 0, 0, 0, '', '');
)sql";

// How far spans have been sent (store/otlp_state.h): one row.
constexpr const char *state_of_otlp = R"sql(
CREATE TABLE otlp (url TEXT NOT NULL, action_id INTEGER NOT NULL, refused INTEGER NOT NULL, evicted INTEGER NOT NULL,
  sent_ms INTEGER NOT NULL, failure TEXT NOT NULL);
INSERT INTO otlp VALUES ('', 0, 0, 0, 0, '');
)sql";

// What stands in the way of later versions of PHP, and which functions are called.
constexpr const char *radar = R"sql(
CREATE TABLE radar_site (application TEXT, file TEXT, line INTEGER, sign INTEGER, name TEXT, function TEXT NOT NULL,
  path TEXT NOT NULL, first_ms INTEGER NOT NULL, last_ms INTEGER NOT NULL, requests INTEGER NOT NULL, ran_ms INTEGER,
  ran_requests INTEGER NOT NULL, PRIMARY KEY (application, file, line, sign, name)) WITHOUT ROWID;
CREATE TABLE radar_function (application TEXT, file TEXT, line INTEGER, name TEXT NOT NULL, first_ms INTEGER NOT NULL,
  last_ms INTEGER NOT NULL, called_ms INTEGER, PRIMARY KEY (application, file, line)) WITHOUT ROWID;
)sql";

constexpr const char *waiting_connections = R"sql(
ALTER TABLE machine_minute ADD COLUMN waiting INTEGER NOT NULL DEFAULT 0;
ALTER TABLE machine_minute ADD COLUMN most_waiting INTEGER NOT NULL DEFAULT 0;
)sql";

constexpr Migration list[] = {
	{1, first_layout},
	{2, numbers_given_once},
	{3, what_was_dropped},
	{4, exact_figures},
	{5, account_of_sender},
	{6, sums_of_keys},
	{7, identity},
	{8, callers_of_queries},
	{9, state_of_export},
	{10, state_of_otlp},
	{11, radar},
	{12, waiting_connections},
};

// How often SQLite looks whether it is to stop: some hundred thousand of its instructions take a millisecond.
constexpr int instructions_per_look = 100000;

int asked_to_stop(void *stopping)
{
	return static_cast<const std::atomic<bool> *>(stopping)->load();
}

LayoutError newer(const Database &database, int64_t version)
{
	return {database.path() + ": layout " + std::to_string(version) + " is of a newer quorbit, this one knows " +
			std::to_string(newest_layout()),
		"install the newer one again, or move the store away"};
}

// Those steps in one transaction: readers see all of them or none.
void run(Database &database, std::span<const Migration> steps)
{
	database.execute("BEGIN IMMEDIATE");
	try {
		for (const Migration &step : steps) {
			// Another daemon may have been faster while we waited for the lock.
			if (database.integer("PRAGMA user_version") != step.version - 1) continue;
			database.execute(step.sql);
			database.execute(("PRAGMA user_version = " + std::to_string(step.version)).c_str());
		}
		database.execute("COMMIT");
	} catch (const SqliteError &) {
		// An interrupt or a full disk has ended the transaction already.
		if (!sqlite3_get_autocommit(database.handle())) database.execute("ROLLBACK");
		throw;
	}
}

} // namespace

std::span<const Migration> migrations()
{
	return list;
}

int64_t newest_layout()
{
	return std::end(list)[-1].version;
}

int64_t bring_up_to_date(Database &database, const std::atomic<bool> *stopping)
{
	int64_t found = database.integer("PRAGMA user_version");
	if (found > newest_layout()) throw newer(database, found);
	if (found == newest_layout()) return found;
	auto flag = const_cast<std::atomic<bool> *>(stopping);
	sqlite3_progress_handler(database.handle(), flag ? instructions_per_look : 0, asked_to_stop, flag);
	// A new store has its newest layout at once: nobody finds one that seems to be an older quorbit's.
	const size_t steps = found ? 1 : std::size(list);
	for (std::span<const Migration> left = migrations().subspan(size_t(found)); !left.empty();
		 left = left.subspan(steps)) {
		run(database, left.first(steps));
	}
	sqlite3_progress_handler(database.handle(), 0, nullptr, nullptr);
	return found;
}

void require_newest_layout(Database &database)
{
	int64_t version = database.integer("PRAGMA user_version");
	if (version == 0) throw LayoutError(database.path() + ": nothing has been stored yet", "");
	if (version > newest_layout()) throw newer(database, version);
	if (version == newest_layout()) return;
	throw LayoutError(database.path() + ": layout " + std::to_string(version) + " is of an older quorbit",
		"restart the daemon, which brings it up to date");
}

} // namespace quorbit
