// Reading the rows of keys in the parts of a range.
#include "store/sqlite_sums.h"

#include "store/sum_plan.h"
#include "store/sum_rows.h"

#include <algorithm>
#include <map>
#include <unistd.h>
#include <unordered_map>

namespace quorbit {

namespace {

KeyKind kind_of(SumKey key)
{
	switch (key) {
	case SumKey::path: return KeyKind::path;
	case SumKey::query: return KeyKind::query;
	case SumKey::error: return KeyKind::error;
	case SumKey::external: return KeyKind::external;
	case SumKey::cache: return KeyKind::cache;
	case SumKey::component: return KeyKind::component;
	default: return KeyKind::action;
	}
}

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

// Calls on_row with the key, the time and its length in milliseconds, and the sums of every row that the filter lets
// through.
template <typename OnRow>
void each_row(Database &database, const SumPlan &plan, KeyKind kind, const SumFilter &filter, OnRow on_row)
{
	const KeySet keys(database, kind, filter);
	auto give = [&](int64_t id, const SumPart &part, int64_t at, Statement &select, int column) {
		if (keys.lets_through(id))
			on_row(keys.knows(id) ? id : 0, at * part.unit_ms(), part.unit_ms(), select.text(column));
	};
	for (const SumPart &part : plan.parts()) {
		const PartSql &sql = part.hours ? hour_sql : minute_sql;
		if (keys.is_small()) {
			Statement select(database, sql.of_key);
			for (int64_t at = part.from; at < part.until; at++) {
				for (int64_t id : keys.ids()) {
					select.bind(1, static_cast<int64_t>(kind)).bind(2, at).bind(3, id);
					if (select.step()) give(id, part, at, select, 0);
					select.reset();
				}
			}
			continue;
		}
		Statement select(database, sql.of_all);
		select.bind(1, static_cast<int64_t>(kind)).bind(2, part.from).bind(3, part.until);
		while (select.step()) give(select.integer(0), part, select.integer(1), select, 2);
	}
}

// The same for what belongs to another key: the parts of an action, or the actions that had a part.
template <typename OnRow>
void each_use(Database &database, const SumPlan &plan, KeyKind kind, const SumFilter &filter, OnRow on_row)
{
	const KeySet keys(database, kind, filter);
	const bool actions = kind == KeyKind::action;
	Statement select(database,
		actions ? "SELECT action, hour, sums FROM use_hour WHERE part = ?1 AND hour >= ?2 AND hour < ?3"
				: "SELECT part, hour, sums FROM use_hour WHERE action = ?1 AND kind = ?4 AND hour >= ?2 AND hour < ?3");
	select.bind(1, filter.within)
		.bind(2, plan.range().from_ms / hour_ms)
		.bind(3, ceil_to(plan.range().until_ms, hour_ms) / hour_ms);
	if (!actions) select.bind(4, static_cast<int64_t>(kind));
	while (select.step()) {
		const int64_t id = select.integer(0);
		if (keys.lets_through(id))
			on_row(keys.knows(id) ? id : 0, select.integer(1) * hour_ms, hour_ms, select.text(2));
	}
}

template <typename OnRow>
void each(Database &database, const SumPlan &plan, KeyKind kind, const SumFilter &filter, OnRow on_row)
{
	if (!filter.host.empty() && filter.host != this_host()) return;
	if (filter.within)
		each_use(database, plan, kind, filter, on_row);
	else
		each_row(database, plan, kind, filter, on_row);
}

// Sums of actions as those of their applications, or of the host.
std::vector<SumRow> merged(Database &database, SumKey key, std::unordered_map<int64_t, SumRow> &rows)
{
	std::map<std::string, SumRow> merged;
	Statement select(database, "SELECT application FROM sum_key WHERE id = ?");
	for (auto &[id, row] : rows) {
		std::string name = other_keys;
		if (key == SumKey::host) {
			name = this_host();
		} else {
			if (select.bind(1, id).step()) name = select.text(0);
			select.reset();
		}
		SumRow &to = merged[name];
		add_row(to, row);
		to.key.name = name;
		if (key == SumKey::application) to.key.application = name;
	}
	std::vector<SumRow> found;
	for (auto &[name, row] : merged) found.push_back(std::move(row));
	return found;
}

void fill_in_keys(Database &database, std::vector<SumRow> &rows)
{
	Statement select(database, std::string("SELECT ") + key_columns + " FROM sum_key WHERE id = ?");
	for (SumRow &row : rows) {
		if (select.bind(1, row.key.id).step())
			row.key = facts_of(select);
		else
			row.key.name = other_keys;
		select.reset();
	}
}

// Examples of a row that are gone give way to others of the range that are there, where the row is the only one asked
// for, else to none.
class Examples {
public:
	Examples(Database &database, const SumPlan &plan, const SumQuestion &question)
		: database_(database), plan_(plan), question_(question), find_(database, "SELECT 1 FROM action WHERE id = ?")
	{
	}

	void mend(Sums &sums)
	{
		const bool slowest = is_there(sums.slowest_id), newest = is_there(sums.newest_id);
		const bool chance = is_there(sums.chance_id);
		if (slowest && newest && chance) return;
		std::vector<std::pair<int64_t, int64_t>> slow; // with what they took
		std::vector<int64_t> all;
		if (question_.filter.id) collect(slow, all);
		if (!slowest) sums.slowest_id = first_there(slow, [](const auto &one) { return one.second; });
		if (!newest) sums.newest_id = first_there(all, [](int64_t id) { return id; });
		if (!chance) sums.chance_id = sums.newest_id;
	}

private:
	bool is_there(int64_t id)
	{
		const bool there = find_.bind(1, id).step();
		find_.reset();
		return there;
	}

	// The examples of every part of the range: the slowest first, the newest first.
	void collect(std::vector<std::pair<int64_t, int64_t>> &slow, std::vector<int64_t> &all)
	{
		each(database_, plan_, kind_of(question_.key), question_.filter,
			[&](int64_t, int64_t, int64_t, const std::string &bytes) {
				Sums sums;
				std::string_view rest = bytes;
				if (!sums.add_head(rest)) return;
				slow.emplace_back(sums.slowest_us, sums.slowest_id);
				all.insert(all.end(), {sums.slowest_id, sums.newest_id, sums.chance_id});
			});
		std::sort(slow.rbegin(), slow.rend());
		std::sort(all.rbegin(), all.rend());
		for (int64_t id : all) slow.emplace_back(0, id);
	}

	template <typename List, typename IdOf>
	int64_t first_there(const List &list, IdOf id_of)
	{
		auto found = std::find_if(list.begin(), list.end(), [&](const auto &one) { return is_there(id_of(one)); });
		return found == list.end() ? 0 : id_of(*found);
	}

	Database &database_;
	const SumPlan &plan_;
	const SumQuestion &question_;
	Statement find_;
};

} // namespace

SumAnswer read_sums(Database &database, const SumQuestion &question)
{
	// A trend of some hours is made of minutes, a longer one of hours.
	constexpr int64_t most_minutes_ms = 3 * hour_ms;
	SumPlan plan(database, question.filter.range, question.filter.within ? SumGrain::hours : SumGrain::fewest_rows);
	int64_t points = question.trend_points;
	const int64_t length_ms = plan.range().until_ms - plan.range().from_ms;
	if (points && !question.filter.within && length_ms <= most_minutes_ms)
		plan = SumPlan(database, question.filter.range, SumGrain::minutes);
	else if (points)
		points = std::clamp(length_ms / hour_ms, int64_t{1}, points);
	SumAdder adder(plan.range(), points);
	each(database, plan, kind_of(question.key), question.filter,
		[&](int64_t id, int64_t at_ms, int64_t, const std::string &bytes) { adder.add(id, at_ms, bytes); });
	SumAnswer answer;
	answer.range = plan.range();
	for (const auto &[id, row] : adder.rows()) answer.all.add(row.sums);
	const bool merges = question.key == SumKey::application || question.key == SumKey::host;
	if (merges) answer.rows = merged(database, question.key, adder.rows());
	for (auto &[id, row] : adder.rows()) {
		if (merges) break;
		row.key.id = id;
		answer.rows.push_back(std::move(row));
	}
	order_rows(answer, question.order, question.most);
	if (!merges) fill_in_keys(database, answer.rows);
	Examples examples(database, plan, question);
	for (SumRow &row : answer.rows) examples.mend(row.sums);
	return answer;
}

std::vector<SeriesPoint> read_series(Database &database, const SeriesQuestion &question)
{
	const int64_t step_ms = std::max(floor_to(question.step_ms, minute_ms), minute_ms);
	const bool hours = question.filter.within || step_ms % hour_ms == 0;
	const SumPlan plan(database, question.filter.range, hours ? SumGrain::hours : SumGrain::minutes);
	std::map<int64_t, SeriesPoint> points;
	each(database, plan, kind_of(question.key), question.filter,
		[&](int64_t, int64_t at_ms, int64_t unit_ms, const std::string &bytes) {
			const int64_t step = std::max(step_ms, unit_ms);
			SeriesPoint &point = points[floor_to(at_ms, step)];
			point.at_ms = floor_to(at_ms, step);
			point.step_ms = step;
			point.sums.add_bytes(bytes);
		});
	std::vector<SeriesPoint> found;
	for (auto &[at_ms, point] : points) found.push_back(std::move(point));
	return found;
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
