// The writing half: adding, and profile orders.
#include "store/store.h"

#include "base/clock.h"
#include "base/files.h"
#include "facts/share.h"
#include "store/action_columns.h"
#include "store/layout.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace quorbit {

namespace {

// The columns of lists follow those that only the store looks at.
constexpr int first_listed = 6;
std::string insert_action_sql()
{
	std::string values = "?1, ?2, ?3, ?4, ?5";
	for (size_t i = 0; i < std::size(action_columns); i++) values += ", ?" + std::to_string(first_listed + i);
	return "INSERT INTO action (id, packet, account, transaction_id, tracer_id" + action_column_names() + ") VALUES (" +
		values + ")";
}

constexpr const char *insert_event_sql =
	"INSERT INTO profile_event (received_ms, application, thread, packet, id) VALUES (?,?,?,?,?)";

constexpr const char *packet_seen_sql = R"sql(
INSERT INTO application (name, packet_ms, packet_process, packets, seen_ms) VALUES (?1, ?2, ?3, 1, ?2)
  ON CONFLICT (name) DO UPDATE SET packet_ms = ?2, packet_process = ?3, packets = packets + 1, seen_ms = ?2)sql";

constexpr const char *query_seen_sql = R"sql(
INSERT INTO application (name, query_ms, query_process, sapi, php_version, given, seen_ms) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?2)
  ON CONFLICT (name) DO UPDATE SET query_ms = ?2, query_process = ?3, sapi = ?4, php_version = ?5, given = ?6, seen_ms = ?2)sql";

// An application's name can come from a request's Host header: their number must not grow without end.
constexpr const char *keep_applications_sql = R"sql(
DELETE FROM application WHERE name IN (SELECT name FROM application ORDER BY seen_ms DESC LIMIT -1 OFFSET 1024))sql";

constexpr const char *used_pages_sql =
	"SELECT (SELECT page_count FROM pragma_page_count) - (SELECT freelist_count FROM pragma_freelist_count)";

constexpr const char *dropped_sql = R"sql(
INSERT INTO dropped VALUES (?1, ?2, ?3, ?4)
  ON CONFLICT (minute_ms, application, reason) DO UPDATE SET count = count + ?4)sql";

constexpr const char *machine_sql = R"sql(
INSERT INTO machine_minute VALUES (?1, ?2, 1, ?3, ?4, ?5, ?6, ?7, ?6, ?8, ?8)
  ON CONFLICT (minute, pool) DO UPDATE SET samples = samples + 1, load_milli = load_milli + ?3, memory_bytes = memory_bytes + ?4,
  available_bytes = available_bytes + ?5, busy = busy + ?6, idle = idle + ?7, most_busy = max(most_busy, ?6),
  waiting = waiting + ?8, most_waiting = max(most_waiting, ?8))sql";

constexpr const char *keep_counter_sql = "UPDATE counter SET value = ?2 WHERE name = ?1";

} // namespace

// Makes a missing file: what applications send is not for other accounts. A file or link that another account has put
// there is refused. Only its name is opened: closing a descriptor of the file itself would drop the locks that SQLite
// holds on it for another connection of this process.
static const std::string &private_file(const std::string &path)
{
	finish_replacing(path);
	int file = open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW);
	if (file == -1 && errno == ENOENT)
		file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
	if (file == -1) throw SqliteError(path + ": " + strerror(errno));
	struct stat status;
	bool ours = fstat(file, &status) == 0 && S_ISREG(status.st_mode) && is_of_root_or_us(status);
	close(file);
	if (!ours) throw SqliteError(path + ": belongs to another account, or is not a regular file");
	return path;
}

Store::Opened::Opened(const std::string &path, const std::atomic<bool> *stopping)
	: Database(private_file(path), Mode::create)
{
	execute("PRAGMA auto_vacuum = INCREMENTAL; PRAGMA journal_mode = WAL");
	execute("PRAGMA synchronous = NORMAL; PRAGMA journal_size_limit = 16777216");
	// Distributions build SQLite so that it overwrites what is deleted: all of that went through the log, for which a
	// full disk has no room.
	execute("PRAGMA secure_delete = FAST");
	bring_up_to_date(*this, stopping);
}

Store::Store(const std::string &path, const std::atomic<bool> *stopping)
	: database_(path, stopping),
	  rollup_(database_),
	  radar_(database_),
	  insert_action_(database_, insert_action_sql()),
	  insert_event_(database_, insert_event_sql),
	  packet_seen_(database_, packet_seen_sql),
	  query_seen_(database_, query_seen_sql),
	  keep_applications_(database_, keep_applications_sql),
	  used_pages_(database_, used_pages_sql),
	  keep_counter_(database_, keep_counter_sql),
	  drop_(database_, dropped_sql),
	  action_ids_(database_, "action"),
	  event_ids_(database_, "profile_event"),
	  page_size_(database_.integer("PRAGMA page_size")),
	  clients_(path)
{
	watch_log();
	look_at_disk(); // before anything is written: on a full disk it would have to fit into the file
	Statement select(database_, "SELECT packet FROM profile_event");
	while (select.step()) event_bytes_ += event_bytes(select.text(0));
}

Store::Ids::Ids(Database &database, const char *table) : database_(database), table_(table)
{
	forget();
}

// So numbers have no gap but where actions were evicted.
void Store::Ids::forget()
{
	const std::string kept = "(SELECT value FROM counter WHERE name = '" + table_ + "')";
	const std::string there = "(SELECT ifnull(max(id), 0) FROM " + table_ + ")";
	last_ = kept_ = database_.integer(("SELECT max(" + kept + ", " + there + ")").c_str());
}

void Store::Ids::keep(Statement &keep_counter)
{
	if (kept_ == last_) return;
	keep_counter.bind(1, table_).bind(2, last_).run();
	kept_ = last_;
}

void Store::begin()
{
	database_.execute("BEGIN IMMEDIATE");
	rollup_.catch_up();
}

void Store::abandon()
{
	if (!sqlite3_get_autocommit(database_.handle())) database_.execute("ROLLBACK");
	rollup_.forget();
	radar_.forget();
	action_ids_.forget();
	event_ids_.forget();
	holders_.reset(); // they know of what was taken back
}

void Store::write_sums()
{
	begin();
	rollup_.write();
	commit();
}

void Store::commit()
{
	if (rollup_.is_due()) rollup_.write();
	action_ids_.keep(keep_counter_);
	event_ids_.keep(keep_counter_);
	database_.execute("COMMIT");
	checkpoint_when_due();
}

void Store::add(const StoredPacket &packet)
{
	if (packet.type == record_thread_profile)
		add_profile_event(packet);
	else
		add_action(packet);
}

void Store::add_action(const StoredPacket &packet)
{
	std::string all = packet.body;
	const std::string radar = take_radar(all);
	const auto cut = within_share(all, PacketShare());
	const std::string &body = cut ? *cut : all;
	auto action = read_action(body);
	if (!action) return;
	ActionRow row = row_of(*action);
	row.received_ms = packet.received_ms;
	row.process = packet.process;
	bind_row(insert_action_, first_listed, row);
	if (!action->transaction_id.empty()) insert_action_.bind(4, column_text(action->transaction_id));
	if (!action->tracer_id.empty()) insert_action_.bind(5, column_text(action->tracer_id));
	const int64_t id = action_ids_.next();
	insert_action_.bind(1, id).bind_blob(2, body).bind(3, packet.account).run();
	const std::string_view application = column_text(row.application);
	const auto findings = read_radar(radar);
	if (findings) radar_.add(row.application, row.path, *findings, packet.received_ms);
	rollup_.add(*action, id, packet.received_ms);
	packet_seen_.bind(1, application).bind(2, packet.received_ms).bind(3, packet.process).run();
	if (!holders_ || !all_read_) return;
	holders_->add({action_ids_.last(), packet.received_ms, action->duration_ms, action_bytes(body.size()),
		packet.account, application, column_text(action->name)});
}

void Store::add_profile_event(const StoredPacket &packet)
{
	auto event = read_profile_event(packet.body);
	// Nobody could print it: events are kept while a client waits for them.
	if (!event || !profiled_.contains(event->application)) return;
	event_bytes_ += event_bytes(packet.body);
	insert_event_.bind(1, packet.received_ms).bind(2, column_text(event->application)).bind(3, event->thread);
	insert_event_.bind_blob(4, packet.body).bind(5, event_ids_.next()).run();
}

void Store::add(const StoredQuery &query)
{
	query_seen_.bind(1, column_text(query.application)).bind(2, query.received_ms).bind(3, query.process);
	query_seen_.bind(4, column_text(query.sapi)).bind(5, column_text(query.php_version)).bind(6, query.given).run();
}

void Store::add_dropped(const std::string &application, const char *reason, int64_t count, int64_t now_wall_ms)
{
	drop_.bind(1, now_wall_ms / minute_ms * minute_ms)
		.bind(2, column_text(application))
		.bind(3, reason)
		.bind(4, count)
		.run();
}

void Store::add(const HostSample &sample, int64_t now_wall_ms)
{
	Statement add(database_, machine_sql);
	auto run = [&](const std::string &pool, int64_t load_milli, int64_t memory, int64_t available,
				   const PoolSample &row) {
		add.bind(1, now_wall_ms / minute_ms).bind(2, pool).bind(3, load_milli).bind(4, memory).bind(5, available);
		add.bind(6, row.busy).bind(7, row.idle).bind(8, row.waiting).run();
	};
	run("", static_cast<int64_t>(sample.load * 1000), sample.memory_bytes, sample.available_bytes, {});
	for (const auto &[pool, row] : sample.pools) run(pool, 0, 0, 0, row);
}

bool Store::changed_by_others()
{
	int64_t version = database_.integer("PRAGMA data_version");
	return std::exchange(data_version_, version) != version;
}

std::vector<ProfileOrder> Store::open_orders(int64_t now_wall_ms)
{
	struct Row {
		ProfileOrder order;
		bool ended;
	};
	std::vector<Row> rows;
	{
		Statement select(database_,
			"SELECT id, application, seconds, started_ms, process, ended_ms FROM profile_order WHERE closed_ms IS "
			"NULL");
		while (select.step()) {
			ProfileOrder order{
				select.integer(0), select.text(1), select.integer(2), select.integer(3), select.integer(4)};
			rows.push_back({std::move(order), !select.is_null(5)});
		}
	}
	std::set<std::string> before = std::exchange(profiled_, {});
	std::vector<ProfileOrder> open;
	for (Row &row : rows) {
		if (!clients_.is_held(row.order.id)) {
			close_order(row.order.id, now_wall_ms);
			before.insert(row.order.application);
			continue;
		}
		profiled_.insert(row.order.application);
		if (!row.ended) open.push_back(std::move(row.order));
	}
	for (const std::string &application : before) {
		if (!profiled_.contains(application)) printed_.push_back({application, 0, event_ids_.last()});
	}
	return open;
}

void Store::close_order(int64_t id, int64_t now_wall_ms)
{
	Statement update(
		database_, "UPDATE profile_order SET ended_ms = ifnull(ended_ms, ?1), closed_ms = ?1 WHERE id = ?2");
	update.bind(1, now_wall_ms).bind(2, id).run();
}

void Store::order_started(const ProfileOrder &order)
{
	Statement update(database_, "UPDATE profile_order SET started_ms = ?, process = ? WHERE id = ?");
	update.bind(1, order.started_ms).bind(2, order.process).bind(3, order.id).run();
}

} // namespace quorbit
