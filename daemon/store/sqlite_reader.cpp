// Questions as SQL.
#include "store/sqlite_reader.h"

#include "facts/share.h"
#include "store/action_columns.h"
#include "store/followed_store.h"
#include "store/sqlite_sums.h"

#include <algorithm>
#include <type_traits>

namespace quorbit {

namespace {

constexpr int packet_column = 1 + static_cast<int>(std::size(action_columns)); // after those of the row

std::string select_rows(const std::string &what = {})
{
	return "SELECT id" + action_column_names() + what;
}

#define DURATION "ifnull(duration_us, duration_ms * 1000)"
// The filter's parameters; ?10 is the first that is free.
#define FILTERED                                                                                                   \
	" FROM action WHERE id > ?1 AND received_ms >= ?2 AND received_ms < ?3 AND (?4 = '' OR application = ?4) AND " \
	"(?5 = '' OR name GLOB ?5) AND (NOT ?6 OR error) AND (?8 <= 0 OR " DURATION                                    \
	" >= ?8) AND (?9 = 0x7fffffffffffffff "                                                                        \
	"OR " DURATION " < ?9) AND (?7 = '' OR path GLOB ?7)"

void bind_filter(Statement &select, const ActionFilter &filter)
{
	select.bind(1, filter.after_id).bind(2, filter.range.from_ms).bind(3, filter.range.until_ms);
	select.bind(4, filter.application).bind(5, filter.name_glob).bind(6, int64_t{filter.errors});
	select.bind(7, filter.path_glob).bind(8, filter.least_us).bind(9, filter.below_us);
}

// Rows of a page: read in a transaction of some milliseconds, after which the store's log can go on.
constexpr int64_t page_rows = 2000;

// Every list is read page by page, and no callback runs within one: whoever prints into a pager may stand still there.
class SqliteReader : public Reader {
public:
	explicit SqliteReader(const std::string &path) : store_(path, Database::Mode::read_only) {}

	void each_action(const ActionQuestion &question, const std::function<void(const ActionRow &)> &on_row) override
	{
		if (!question.filter.host.empty() && question.filter.host != this_host()) return;
		if (question.order == ActionOrder::slowest) return each_slowest(question, on_row);
		const bool newest = question.order == ActionOrder::newest;
		const std::string sql =
			select_rows(FILTERED " AND id < ?10 ORDER BY id ") + (newest ? "DESC" : "ASC") + " LIMIT ?11";
		ActionFilter filter = question.filter;
		int64_t before_id = INT64_MAX, left = question.most;
		for (bool more = true; more && left > 0;) {
			const int64_t most = std::min(left, page_rows);
			auto found = page(sql, [&](Statement &select) {
				bind_filter(select, filter);
				select.bind(10, before_id).bind(11, most);
			});
			more = static_cast<int64_t>(found.size()) == most;
			left -= most;
			if (more) (newest ? before_id : filter.after_id) = found.back().id;
			for (const ActionRow &row : found) on_row(row);
		}
	}

	StorePosition position() override
	{
		Unstopped reading;
		Statement select(store_.current(),
			"SELECT (SELECT value FROM counter WHERE name = 'identity'), (SELECT max(id) FROM action)");
		select.step();
		return {select.integer(0), select.integer(1)};
	}

	std::optional<StoredAction> action(int64_t id) override
	{
		Unstopped reading;
		Statement select(store_.current(), select_rows(", packet FROM action WHERE id = ?"));
		if (!select.bind(1, id).step()) return std::nullopt;
		// Earlier versions stored packets of any size: those are read as they would be stored today.
		const std::string packet = select.text(packet_column);
		const auto cut = within_share(packet, PacketShare());
		auto action = read_action(cut ? *cut : packet);
		if (!action) throw SqliteError("the packet of action " + std::to_string(id) + " is damaged");
		return StoredAction{read_row(select), std::move(*action)};
	}

	void each_related(
		const RelatedQuestion &question, const std::function<void(const StoredAction &)> &on_action) override
	{
		std::vector<int64_t> seen = {question.id};
		int64_t bytes_left = question.most_bytes;
		auto collect = [&](const char *column, const std::string &value) {
			if (value.empty()) return;
			const std::string sql = std::string("SELECT id FROM action WHERE ") + column + " = ?1 ORDER BY id LIMIT ?2";
			for (int64_t id : ids(sql, [&](Statement &select) { select.bind(1, value).bind(2, question.most + 1); })) {
				if (static_cast<int64_t>(seen.size()) > question.most) return;
				if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
				bytes_left -= packet_bytes(id);
				if (bytes_left < 0) return;
				auto related = action(id);
				if (!related) continue; // evicted since
				seen.push_back(id);
				on_action(*related);
			}
		};
		collect("transaction_id", question.transaction_id);
		for (const std::string &tracer_id : question.tracer_ids) collect("tracer_id", tracer_id);
	}

	SumAnswer sums(const SumQuestion &question) override
	{
		Snapshot snapshot(store_);
		return read_sums(snapshot.database, question);
	}

	std::vector<SeriesPoint> series(const SeriesQuestion &question) override
	{
		Snapshot snapshot(store_);
		return read_series(snapshot.database, question);
	}

	std::optional<KeyFacts> key(SumKey key, int64_t id) override
	{
		Snapshot snapshot(store_);
		return read_key(snapshot.database, key, id);
	}

	std::vector<MachineRow> machine(const MachineQuestion &question) override
	{
		Snapshot snapshot(store_);
		return read_machine(snapshot.database, question);
	}

	std::vector<ReleaseRow> releases(const std::string &application) override
	{
		Snapshot snapshot(store_);
		return read_releases(snapshot.database, application);
	}

	std::vector<DroppedRow> dropped(const TimeRange &range, const std::string &application) override
	{
		return rows(
			"SELECT application, reason, sum(count) FROM dropped WHERE minute_ms > ?1 - 60000 AND minute_ms < ?2 "
			"AND (?3 = '' OR application = ?3) GROUP BY application, reason ORDER BY sum(count) DESC",
			[&](Statement &select) { select.bind(1, range.from_ms).bind(2, range.until_ms).bind(3, application); },
			[](Statement &row) {
				return DroppedRow{row.text(0), row.text(1), row.integer(2)};
			});
	}

	std::vector<ApplicationRow> applications() override
	{
		return rows(
			"SELECT name, query_ms, query_process, sapi, php_version, given, packet_ms, packet_process, packets "
			"FROM application ORDER BY name",
			[](Statement &) {},
			[](Statement &row) {
				return ApplicationRow{row.text(0), row.integer(1), row.integer(2), row.text(3), row.text(4),
					row.text(5), row.integer(6), row.integer(7), row.integer(8)};
			});
	}

	std::vector<std::string> hosts() override { return {this_host()}; }

	std::vector<SenderRow> senders(const TimeRange &range) override
	{
		return rows(
			"SELECT process, application, max(received_ms), count(*) FROM action "
			"WHERE received_ms >= ? AND received_ms < ? GROUP BY process, application",
			[&](Statement &select) { select.bind(1, range.from_ms).bind(2, range.until_ms); },
			[](Statement &row) {
				return SenderRow{row.integer(0), row.text(1), row.integer(2), row.integer(3)};
			});
	}

	void each_profile_event(
		const ProfileQuestion &question, const std::function<void(const ProfileEvent &)> &on_event) override
	{
		const auto all = ids("SELECT id FROM profile_event WHERE id > ? AND application = ? ORDER BY thread, id",
			[&](Statement &select) { select.bind(1, question.after_id).bind(2, question.application); });
		for (size_t begin = 0; begin < all.size(); begin += page_rows) {
			for (const std::string &packet : events(all, begin, std::min(all.size(), begin + page_rows))) {
				if (auto event = read_profile_event(packet)) on_event(*event);
			}
		}
	}

private:
	// The state of the store as it is now, until the object goes.
	struct Snapshot {
		explicit Snapshot(FollowedStore &store) : database(store.current()) { database.execute("BEGIN"); }
		~Snapshot() { sqlite3_exec(database.handle(), "ROLLBACK", nullptr, nullptr, nullptr); }
		Unstopped reading;
		Database &database;
	};

	void each_slowest(const ActionQuestion &question, const std::function<void(const ActionRow &)> &on_row)
	{
		auto found =
			page(select_rows(FILTERED " ORDER BY " DURATION " DESC, id DESC LIMIT ?10"), [&](Statement &select) {
				bind_filter(select, question.filter);
				select.bind(10, question.most);
			});
		for (const ActionRow &row : found) on_row(row);
	}

	int64_t packet_bytes(int64_t id)
	{
		Unstopped reading;
		Statement select(store_.current(), "SELECT length(packet) FROM action WHERE id = ?");
		return select.bind(1, id).step() ? select.integer(0) : 0;
	}

	// The rows of a statement whose parameters `bind` binds, each as `read` makes it.
	template <typename Bind, typename Read>
	std::vector<std::invoke_result_t<Read, Statement &>> rows(const std::string &sql, Bind bind, Read read)
	{
		Unstopped reading;
		Statement select(store_.current(), sql);
		bind(select);
		std::vector<std::invoke_result_t<Read, Statement &>> found;
		while (select.step()) found.push_back(read(select));
		return found;
	}

	template <typename Bind>
	std::vector<ActionRow> page(const std::string &sql, Bind bind)
	{
		return rows(sql, bind, read_row);
	}

	template <typename Bind>
	std::vector<int64_t> ids(const std::string &sql, Bind bind)
	{
		return rows(sql, bind, [](Statement &row) { return row.integer(0); });
	}

	// The packets of a part of `all`; those evicted since are left out.
	std::vector<std::string> events(const std::vector<int64_t> &all, size_t begin, size_t end)
	{
		Unstopped reading;
		Statement select(store_.current(), "SELECT packet FROM profile_event WHERE id = ?");
		std::vector<std::string> packets;
		for (; begin < end; begin++) {
			if (select.bind(1, all[begin]).step()) packets.push_back(select.text(0));
			select.reset();
		}
		return packets;
	}

	FollowedStore store_;
};

} // namespace

std::unique_ptr<Reader> open_sqlite_reader(const std::string &path)
{
	return std::make_unique<SqliteReader>(path);
}

} // namespace quorbit
