// The sums of the daemon's own store: finding rows by time and key.
#include "store/sqlite_sums.h"

#include "store/sum_source.h"

#include <algorithm>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr const char *key_columns =
	"id, application, name, vendor, subject, verb, place, finding, suggestion, finding_ms, "
	"error_class, message, first_ms, last_ms, caller";

KeyFacts facts_of(Statement &select)
{
	KeyFacts facts{select.integer(0), select.text(1), select.text(2)};
	facts.vendor = select.text(3);
	facts.table = select.text(4);
	facts.verb = select.text(5);
	facts.place = select.text(6);
	facts.finding = select.text(7);
	facts.suggestion = select.text(8);
	facts.finding_ms = select.integer(9);
	facts.error_class = select.text(10);
	facts.message = select.text(11);
	facts.first_ms = select.integer(12);
	facts.last_ms = select.integer(13);
	facts.caller = select.text(14);
	return facts;
}

// The keys that a filter lets through; 0 is one that is not known any more.
class KeySet {
public:
	KeySet(Database &database, KeyKind kind, const SumFilter &filter)
	{
		all_ = filter.application.empty() && filter.name_glob.empty() && filter.id == 0;
		Statement select(database,
			"SELECT id FROM sum_key WHERE kind = ?1 AND (?2 = '' OR application = ?2) AND (?3 = '' OR name GLOB ?3) "
			"AND (?4 = 0 OR id = ?4)");
		select.bind(1, static_cast<int64_t>(kind)).bind(2, filter.application).bind(3, filter.name_glob);
		select.bind(4, filter.id);
		while (select.step()) ids_.push_back(select.integer(0));
		std::sort(ids_.begin(), ids_.end());
	}

	bool knows(int64_t id) const { return std::binary_search(ids_.begin(), ids_.end(), id); }
	bool lets_through(int64_t id) const { return all_ || knows(id); }
	// Whether rows are found faster one by one than by looking at all of a time.
	bool is_small() const { return !all_ && ids_.size() < 8; }
	const std::vector<int64_t> &ids() const { return ids_; }

private:
	bool all_;
	std::vector<int64_t> ids_;
};

// What reads a table of sums.
struct PartSql {
	const char *of_key, *of_all;
};
constexpr PartSql minute_sql = {"SELECT sums FROM sum_minute WHERE kind = ? AND minute = ? AND key = ?",
	"SELECT key, minute, sums FROM sum_minute WHERE kind = ?1 AND minute >= ?2 AND minute < ?3"};
constexpr PartSql hour_sql = {"SELECT sums FROM sum_hour WHERE kind = ? AND hour = ? AND key = ?",
	"SELECT key, hour, sums FROM sum_hour WHERE kind = ?1 AND hour >= ?2 AND hour < ?3"};

class SqliteSums : public SumSource {
public:
	explicit SqliteSums(Database &database) : database_(database), host_(this_host()) {}

	KeptSums kept() override
	{
		auto edge = [this](const char *sql) { return database_.integer(sql); };
		return {edge("SELECT min(hour) FROM sum_hour WHERE kind = 1"),
			edge("SELECT max(hour) FROM sum_hour WHERE kind = 1"),
			edge("SELECT min(minute) FROM sum_minute WHERE kind = 1"),
			edge("SELECT max(minute) FROM sum_minute WHERE kind = 1")};
	}

	void each(const SumPlan &plan, KeyKind kind, const SumFilter &filter,
		const std::function<void(const FoundSums &)> &on_row) override
	{
		if (!filter.host.empty() && filter.host != host_) return;
		const KeySet keys(database_, kind, filter);
		auto give = [&](int64_t id, int64_t at_ms, int64_t unit_ms, const std::string &sums) {
			if (keys.lets_through(id)) on_row({keys.knows(id) ? id : 0, at_ms, unit_ms, sums, host_});
		};
		if (filter.within) return each_use(plan, kind, filter.within, give);
		for (const SumPart &part : plan.parts()) each_of(part, kind, keys, give);
	}

	std::unordered_map<int64_t, KeyFacts> keys(const std::vector<int64_t> &ids) override
	{
		std::unordered_map<int64_t, KeyFacts> found;
		Statement select(database_, std::string("SELECT ") + key_columns + " FROM sum_key WHERE id = ?");
		for (int64_t id : ids) {
			if (select.bind(1, id).step()) found.emplace(id, facts_of(select));
			select.reset();
		}
		return found;
	}

	std::unordered_set<int64_t> actions_there(const std::vector<int64_t> &ids) override
	{
		std::unordered_set<int64_t> found;
		Statement select(database_, "SELECT 1 FROM action WHERE id = ?");
		for (int64_t id : ids) {
			if (select.bind(1, id).step()) found.insert(id);
			select.reset();
		}
		return found;
	}

private:
	template <typename Give>
	void each_of(const SumPart &part, KeyKind kind, const KeySet &keys, Give give)
	{
		const PartSql &sql = part.hours ? hour_sql : minute_sql;
		const int64_t unit_ms = part.unit_ms();
		if (!keys.is_small()) {
			Statement select(database_, sql.of_all);
			select.bind(1, static_cast<int64_t>(kind)).bind(2, part.from).bind(3, part.until);
			while (select.step()) give(select.integer(0), select.integer(1) * unit_ms, unit_ms, select.text(2));
			return;
		}
		Statement select(database_, sql.of_key);
		for (int64_t at = part.from; at < part.until; at++) {
			for (int64_t id : keys.ids()) {
				select.bind(1, static_cast<int64_t>(kind)).bind(2, at).bind(3, id);
				if (select.step()) give(id, at * unit_ms, unit_ms, select.text(0));
				select.reset();
			}
		}
	}

	// What belongs to another key: the parts of an action, or the actions that had a part.
	template <typename Give>
	void each_use(const SumPlan &plan, KeyKind kind, int64_t within, Give give)
	{
		const bool actions = kind == KeyKind::action;
		Statement select(database_,
			actions
				? "SELECT action, hour, sums FROM use_hour WHERE part = ?1 AND hour >= ?2 AND hour < ?3"
				: "SELECT part, hour, sums FROM use_hour WHERE action = ?1 AND kind = ?4 AND hour >= ?2 AND hour < ?3");
		select.bind(1, within)
			.bind(2, plan.range().from_ms / hour_ms)
			.bind(3, ceil_to(plan.range().until_ms, hour_ms) / hour_ms);
		if (!actions) select.bind(4, static_cast<int64_t>(kind));
		while (select.step()) give(select.integer(0), select.integer(1) * hour_ms, hour_ms, select.text(2));
	}

	Database &database_;
	const std::string host_;
};

} // namespace

SumAnswer read_sums(Database &database, const SumQuestion &question)
{
	SqliteSums source(database);
	return answer_sums(source, question);
}

std::vector<SeriesPoint> read_series(Database &database, const SeriesQuestion &question)
{
	SqliteSums source(database);
	return answer_series(source, question);
}

std::optional<KeyFacts> read_key(Database &database, SumKey key, int64_t id)
{
	Statement select(database, std::string("SELECT ") + key_columns + " FROM sum_key WHERE id = ? AND kind = ?");
	if (!select.bind(1, id).bind(2, static_cast<int64_t>(kind_of(key))).step()) return std::nullopt;
	return facts_of(select);
}

std::string this_host()
{
	char name[256] = {};
	gethostname(name, sizeof name - 1);
	return name;
}

} // namespace quorbit
