// Finding rows by time and key: of each the last that was sent, from every host.
#include "store/clickhouse_sums.h"

#include "store/fleet_layout.h"
#include "store/row_binary.h"

#include <sqlite3.h>

#include <algorithm>
#include <set>
#include <tuple>

namespace quorbit {

namespace {

constexpr size_t most_listed = 5000;      // numbers in a statement, which may have 256 KiB
constexpr int64_t last_time = UINT32_MAX; // in minutes and hours, as the columns have it
constexpr int64_t most_rows = 500'000;    // in an answer, of some 100 bytes each; a minute or hour is never divided

constexpr int64_t most_minutes = 1'000'000; // rows for a chart: so many take half a second or more

// Calls `ask` with parts of the numbers, as "1,2,3".
template <typename Ask>
void in_parts(const std::vector<int64_t> &ids, Ask ask)
{
	for (size_t begin = 0; begin < ids.size(); begin += most_listed) {
		std::string list;
		for (size_t i = begin; i < std::min(begin + most_listed, ids.size()); i++)
			list += (list.empty() ? "" : ",") + std::to_string(ids[i]);
		ask(list);
	}
}

constexpr const char *key_texts[] = {"application", "name", "vendor", "subject", "verb", "place", "finding",
	"suggestion", "error_class", "message", "caller"};

// The facts that the store told which saw the key last.
std::string keys_sql(const std::string &ids)
{
	std::string sql = "SELECT toInt64(id)";
	for (const char *column : key_texts) sql += std::string(", argMax(") + column + ", last_ms)";
	return sql + ", argMax(finding_ms, last_ms), min(first_ms), toInt64(max(last_ms)) FROM sum_key WHERE id IN (" +
		ids + ") GROUP BY id FORMAT RowBinary";
}

} // namespace

std::string days_condition(const TimeRange &range)
{
	constexpr int64_t far_ms = 4'102'444'800'000; // 2100-01-01; a Date ends a few years later
	auto day = [](int64_t wall_ms) { return "'" + utc_time(wall_ms).substr(0, 10) + "'"; };
	std::string sql;
	if (range.from_ms > 0) sql += " AND day >= " + day(std::min(range.from_ms, far_ms));
	if (range.until_ms < far_ms) sql += " AND day <= " + day(std::max(range.until_ms, int64_t{0}));
	return sql;
}

std::string host_condition(const std::string &host)
{
	return host.empty() ? "" : " AND host = " + quoted(host);
}

// The keys that a filter lets through.
class ClickHouseSums::KeySet {
public:
	KeySet(ClickHouse &server, KeyKind kind, const SumFilter &filter)
		: all_(filter.application.empty() && filter.name_glob.empty())
	{
		if (all_ && filter.id) ids_.insert(filter.id);
		if (all_) return;
		const std::string answer = server.ask(
			"SELECT DISTINCT toInt64(id), name FROM sum_key WHERE kind = " + std::to_string(static_cast<int>(kind)) +
			(filter.application.empty() ? "" : " AND application = " + quoted(filter.application)) +
			(filter.id ? " AND id = " + std::to_string(filter.id) : "") + " FORMAT RowBinary");
		for (RowReader row(answer); !row.is_at_end();) {
			const auto id = row.number<int64_t>();
			const std::string name(row.text());
			// The globs of the other store.
			if (filter.name_glob.empty() || sqlite3_strglob(filter.name_glob.c_str(), name.c_str()) == 0)
				ids_.insert(id);
		}
	}

	bool lets_through(int64_t id) const { return (all_ && ids_.empty()) || ids_.contains(id); }
	// What the server need not send: " AND key IN (...)" of a column, where that is short.
	std::string condition(const char *column) const
	{
		if ((all_ && ids_.empty()) || ids_.size() > most_listed) return "";
		std::string list = "0";
		for (int64_t id : ids_) list += "," + std::to_string(id);
		return std::string(" AND ") + column + " IN (" + list + ")";
	}

private:
	bool all_;
	std::unordered_set<int64_t> ids_;
};

KeptSums ClickHouseSums::kept()
{
	auto edges = [this](const std::string &time, const std::string &table) {
		return server_.ask("SELECT toInt64(min(" + time + ")), toInt64(max(" + time + ")) FROM " + table +
			" WHERE kind = 1 FORMAT RowBinary");
	};
	KeptSums kept;
	const std::string hours = edges("hour", "sum_hour"), minutes = edges("minute", "sum_minute");
	for (auto [answer, first, last] : {std::tuple(&hours, &kept.first_hour, &kept.last_hour),
			 std::tuple(&minutes, &kept.first_minute, &kept.last_minute)}) {
		if (answer->empty()) continue;
		RowReader row(*answer);
		for (int64_t *edge : {first, last}) *edge = std::clamp(row.number<int64_t>(), int64_t{0}, last_time);
	}
	return kept;
}

const std::string &ClickHouseSums::host_of(int64_t source)
{
	if (!hosts_.contains(source)) {
		const std::string answer = server_.ask(
			"SELECT toInt64(source), host FROM source ORDER BY claimed_ms DESC FORMAT "
			"RowBinary");
		for (RowReader row(answer); !row.is_at_end();) {
			const auto number = row.number<int64_t>();
			hosts_[number] = row.text();
		}
	}
	return hosts_[source];
}

// Rows of a table that belong to an answer: those of times from <= time < until that `where` lets through.
struct ClickHouseSums::Rows {
	const char *table, *key, *time; // the columns' names
	int64_t from, until, unit_ms;
	std::string where; // each condition after " AND "

	std::string condition(int64_t first, int64_t end) const
	{
		return std::string(" FROM ") + table + " WHERE " + time + " >= " + std::to_string(first) + " AND " + time +
			" < " + std::to_string(end) + where + days_condition({first * unit_ms, end * unit_ms - 1});
	}
};

// As much of the time at once as has not too many rows.
void ClickHouseSums::each_in(const Rows &rows, const KeySet &keys, const std::function<void(const FoundSums &)> &on_row)
{
	const std::string time = rows.time;
	const std::string answer = server_.ask("SELECT toInt64(" + time + "), toInt64(count())" +
		rows.condition(rows.from, rows.until) + " GROUP BY " + time + " ORDER BY " + time + " FORMAT RowBinary");
	int64_t from = rows.from, count = 0;
	for (RowReader row(answer); !row.is_at_end();) {
		const auto at = row.number<int64_t>();
		const int64_t more = std::clamp(row.number<int64_t>(), int64_t{0}, most_rows);
		if (at < from || at >= rows.until) continue; // which was not asked for
		if (count > 0 && count + more > most_rows) {
			each_between(rows, from, at, keys, on_row);
			from = at;
			count = 0;
		}
		count += more;
	}
	if (count > 0) each_between(rows, from, rows.until, keys, on_row);
}

// Of each row the last that was sent, found here: the server takes ten times as long to group them.
void ClickHouseSums::each_between(const Rows &rows, int64_t from, int64_t until, const KeySet &keys,
	const std::function<void(const FoundSums &)> &on_row)
{
	struct Row {
		int64_t key;
		uint32_t time, source;
		uint64_t version;
		std::string_view sums;
	};
	const std::string key = rows.key, time = rows.time;
	const std::string answer = server_.ask(
		"SELECT " + key + ", " + time + ", source, version, sums" + rows.condition(from, until) + " FORMAT RowBinary");
	std::vector<Row> found;
	for (RowReader row(answer); !row.is_at_end();) {
		const auto id = static_cast<int64_t>(row.number<uint64_t>());
		const auto at = row.number<uint32_t>(), source = row.number<uint32_t>();
		const auto version = row.number<uint64_t>();
		const std::string_view sums = row.text();
		if (keys.lets_through(id)) found.push_back({id, at, source, version, sums});
	}
	auto place = [](const Row &row) { return std::tie(row.key, row.time, row.source); };
	std::sort(found.begin(), found.end(), [place](const Row &a, const Row &b) {
		return std::tuple_cat(place(a), std::tie(a.version)) < std::tuple_cat(place(b), std::tie(b.version));
	});
	for (size_t i = 0; i < found.size(); i++) {
		const Row &row = found[i];
		if (i + 1 < found.size() && place(row) == place(found[i + 1])) continue;
		on_row({is_forgotten(row.key) ? 0 : row.key, row.time * rows.unit_ms, rows.unit_ms, row.sums,
			host_of(row.source)});
	}
}

void ClickHouseSums::each(
	const SumPlan &plan, KeyKind kind, const SumFilter &filter, const std::function<void(const FoundSums &)> &on_row)
{
	const KeySet keys(server_, kind, filter);
	if (filter.within) {
		const std::string within = std::to_string(filter.within);
		const bool actions = kind == KeyKind::action;
		const char *key = actions ? "action" : "part";
		const std::string which = actions
			? " AND part = " + within
			: " AND action = " + within + " AND kind = " + std::to_string(static_cast<int>(kind));
		return each_in(
			{"use_hour", key, "hour", plan.range().from_ms / hour_ms, ceil_to(plan.range().until_ms, hour_ms) / hour_ms,
				hour_ms, which + host_condition(filter.host) + keys.condition(key)},
			keys, on_row);
	}
	for (const SumPart &part : plan.parts()) each_in(rows_of(part, kind, filter, keys), keys, on_row);
}

ClickHouseSums::Rows ClickHouseSums::rows_of(
	const SumPart &part, KeyKind kind, const SumFilter &filter, const KeySet &keys)
{
	return {part.hours ? "sum_hour" : "sum_minute", "key", part.hours ? "hour" : "minute", part.from, part.until,
		part.unit_ms(),
		" AND kind = " + std::to_string(static_cast<int>(kind)) + host_condition(filter.host) + keys.condition("key")};
}

bool ClickHouseSums::has_too_many_minutes(const SumPlan &plan, KeyKind kind, const SumFilter &filter)
{
	const KeySet keys(server_, kind, filter);
	int64_t count = 0;
	for (const SumPart &part : plan.parts()) {
		if (part.hours) continue;
		const std::string answer = server_.ask("SELECT toInt64(count())" +
			rows_of(part, kind, filter, keys).condition(part.from, part.until) + " FORMAT RowBinary");
		if (!answer.empty()) count += std::clamp(RowReader(answer).number<int64_t>(), int64_t{0}, most_minutes);
	}
	return count >= most_minutes;
}

std::unordered_map<int64_t, KeyFacts> ClickHouseSums::keys(const std::vector<int64_t> &ids)
{
	std::unordered_map<int64_t, KeyFacts> found;
	in_parts(ids, [&](const std::string &list) {
		const std::string answer = server_.ask(keys_sql(list));
		for (RowReader row(answer); !row.is_at_end();) {
			KeyFacts facts;
			facts.id = row.number<int64_t>();
			for (std::string *text :
				{&facts.application, &facts.name, &facts.vendor, &facts.table, &facts.verb, &facts.place,
					&facts.finding, &facts.suggestion, &facts.error_class, &facts.message, &facts.caller})
				*text = row.text();
			for (int64_t *ms : {&facts.finding_ms, &facts.first_ms, &facts.last_ms}) *ms = row.number<int64_t>();
			const int64_t id = facts.id;
			found.emplace(id, std::move(facts));
		}
	});
	return found;
}

std::unordered_set<int64_t> ClickHouseSums::actions_there(const std::vector<int64_t> &ids)
{
	std::unordered_set<int64_t> found;
	// The stores are named because actions lie in their order.
	std::set<int64_t> stores;
	for (int64_t id : ids) stores.insert(source_of(id));
	std::string sources;
	for (int64_t store : stores) sources += (sources.empty() ? "" : ",") + std::to_string(store);
	in_parts(ids, [&](const std::string &list) {
		const std::string answer = server_.ask("SELECT toInt64(id) FROM action WHERE source IN (" + sources +
			") AND id IN (" + list + ") FORMAT RowBinary");
		for (RowReader row(answer); !row.is_at_end();) found.insert(row.number<int64_t>());
	});
	return found;
}

} // namespace quorbit
