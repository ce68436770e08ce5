// Questions as SQL.
#include "store/sqlite_reader.h"

#include "store/action_sums.h"
#include "store/layout.h"
#include "store/sqlite.h"

#include <algorithm>

namespace quorbit {

namespace {

#define ROW_COLUMNS                                                                                                   \
	"id, received_ms, process, application, name, duration_ms, database_ms, cache_ms, external_ms, code_ms, status, " \
	"error"
constexpr int packet_column = 12; // after those

// The filter's parameters; ?5 is the first that is free.
#define FILTERED \
	" FROM action WHERE id > ?1 AND received_ms >= ?2 AND received_ms < ?3 AND (?4 = '' OR application = ?4)"

void bind_filter(Statement &select, const ActionFilter &filter)
{
	select.bind(1, filter.after_id).bind(2, filter.range.from_ms).bind(3, filter.range.until_ms);
	select.bind(4, filter.application);
}

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

class SqliteReader : public Reader {
public:
	explicit SqliteReader(const std::string &path) : database_(path, Database::Mode::read_only)
	{
		require_newest_layout(database_);
	}

	void each_action(const ActionQuestion &question, const std::function<void(const ActionRow &)> &on_row) override
	{
		const char *order = question.order == ActionOrder::newest ? "DESC" : "ASC";
		Statement select(database_, std::string("SELECT " ROW_COLUMNS FILTERED " ORDER BY id ") + order + " LIMIT ?5");
		bind_filter(select, question.filter);
		select.bind(5, question.most);
		while (select.step()) on_row(row_of(select));
	}

	int64_t last_id() override { return database_.integer("SELECT max(id) FROM action"); }

	std::optional<StoredAction> action(int64_t id) override
	{
		Statement select(database_, "SELECT " ROW_COLUMNS ", packet FROM action WHERE id = ?");
		if (!select.bind(1, id).step()) return std::nullopt;
		auto action = read_action(select.text(packet_column));
		if (!action) throw SqliteError("the packet of action " + std::to_string(id) + " is damaged");
		return StoredAction{row_of(select), std::move(*action)};
	}

	void each_related(
		const RelatedQuestion &question, const std::function<void(const StoredAction &)> &on_action) override
	{
		std::vector<int64_t> seen = {question.id};
		auto collect = [&](const char *column, const std::string &value) {
			if (value.empty()) return;
			Statement select(database_,
				std::string("SELECT " ROW_COLUMNS ", packet FROM action WHERE ") + column + " = ? ORDER BY id");
			select.bind(1, value);
			while (static_cast<int64_t>(seen.size()) <= question.most && select.step()) {
				if (std::find(seen.begin(), seen.end(), select.integer(0)) != seen.end()) continue;
				auto action = read_action(select.text(packet_column));
				if (!action) continue;
				seen.push_back(select.integer(0));
				on_action({row_of(select), std::move(*action)});
			}
		};
		collect("transaction_id", question.transaction_id);
		for (const std::string &tracer_id : question.tracer_ids) collect("tracer_id", tracer_id);
	}

	std::vector<SumRow> sums(const SumQuestion &question) override
	{
		Statement select(database_, "SELECT " ROW_COLUMNS FILTERED);
		bind_filter(select, question.filter);
		ActionSums sums;
		while (select.step()) sums.add(row_of(select));
		return sums.sorted();
	}

	std::vector<ApplicationRow> applications() override
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

	void each_profile_event(
		const ProfileQuestion &question, const std::function<void(const ProfileEvent &)> &on_event) override
	{
		Statement select(database_,
			"SELECT packet FROM profile_event WHERE received_ms >= ? AND received_ms < ? AND application = ? "
			"ORDER BY thread, id");
		select.bind(1, question.range.from_ms).bind(2, question.range.until_ms).bind(3, question.application);
		while (select.step()) {
			if (auto event = read_profile_event(select.text(0))) on_event(*event);
		}
	}

private:
	Database database_;
};

} // namespace

std::unique_ptr<Reader> open_sqlite_reader(const std::string &path)
{
	return std::make_unique<SqliteReader>(path);
}

} // namespace quorbit
