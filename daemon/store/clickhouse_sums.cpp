// Finding rows by time and key: of each the last that was sent, from every host.
#include "store/clickhouse_sums.h"

#include "store/fleet_layout.h"
#include "store/row_binary.h"

#include <sqlite3.h>

#include <algorithm>
#include <set>

namespace quorbit {

namespace {

constexpr size_t most_listed = 5000; // numbers in a statement, which may have 256 KiB

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
	std::string sql;
	if (range.from_ms > 0) sql += " AND day >= '" + utc_time(range.from_ms).substr(0, 10) + "'";
	if (range.until_ms != INT64_MAX) sql += " AND day <= '" + utc_time(range.until_ms).substr(0, 10) + "'";
	return sql;
}

std::string host_condition(const std::string &host)
{
	return host.empty() ? "" : " AND host = " + quoted(host);
}

// The keys that a filter lets through. 0 is one that is not known any more.
class ClickHouseSums::KeySet {
public:
	KeySet(ClickHouse &server, KeyKind kind, const SumFilter &filter)
		: all_(filter.application.empty() && filter.name_glob.empty() && filter.id == 0)
	{
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

	bool knows(int64_t id) const { return ids_.contains(id); }
	bool lets_through(int64_t id) const { return all_ || knows(id); }
	// What the server need not send: " AND key IN (...)" of a column, where that is short.
	std::string condition(const char *column) const
	{
		if (all_ || ids_.size() > most_listed) return "";
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
		*first = row.number<int64_t>();
		*last = row.number<int64_t>();
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

// Rows of key, time, store and sums.
void ClickHouseSums::each_in(
	const std::string &sql, int64_t unit_ms, const KeySet &keys, const std::function<void(const FoundSums &)> &on_row)
{
	const std::string answer = server_.ask(sql);
	for (RowReader row(answer); !row.is_at_end();) {
		const auto id = row.number<int64_t>(), time = row.number<int64_t>(), source = row.number<int64_t>();
		const std::string_view sums = row.text();
		if (!keys.lets_through(id)) continue;
		on_row({keys.knows(id) ? id : 0, time * unit_ms, unit_ms, sums, host_of(source)});
	}
}

void ClickHouseSums::each(
	const SumPlan &plan, KeyKind kind, const SumFilter &filter, const std::function<void(const FoundSums &)> &on_row)
{
	const KeySet keys(server_, kind, filter);
	const std::string of_kind = " AND kind = " + std::to_string(static_cast<int>(kind));
	auto sql = [&](const std::string &table, const std::string &key, const std::string &time, int64_t from,
				   int64_t until, int64_t unit_ms, const std::string &which) {
		return "SELECT toInt64(" + key + "), toInt64(" + time + "), toInt64(source), argMax(sums, version) FROM " +
			table + " WHERE " + time + " >= " + std::to_string(from) + " AND " + time + " < " + std::to_string(until) +
			which + days_condition({from * unit_ms, until * unit_ms}) + host_condition(filter.host) +
			keys.condition(key.c_str()) + " GROUP BY " + key + ", " + time + ", source FORMAT RowBinary";
	};
	if (filter.within) {
		const std::string within = std::to_string(filter.within);
		const bool actions = kind == KeyKind::action;
		const std::string which = actions ? " AND part = " + within : " AND action = " + within + of_kind;
		return each_in(sql("use_hour", actions ? "action" : "part", "hour", plan.range().from_ms / hour_ms,
						   ceil_to(plan.range().until_ms, hour_ms) / hour_ms, hour_ms, which),
			hour_ms, keys, on_row);
	}
	for (const SumPart &part : plan.parts()) {
		const char *table = part.hours ? "sum_hour" : "sum_minute", *time = part.hours ? "hour" : "minute";
		each_in(sql(table, "key", time, part.from, part.until, part.unit_ms(), of_kind), part.unit_ms(), keys, on_row);
	}
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
