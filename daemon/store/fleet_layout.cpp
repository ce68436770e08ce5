// The tables, and statements made of them.
#include "store/fleet_layout.h"

#include "base/clock.h"
#include "store/action_row.h"
#include "store/row_binary.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <stdexcept>

namespace quorbit {

namespace {

constexpr uint32_t layout_version = 2; // to be raised with each column or table that is added

// Every table has `source`, the number of the daemon's store, and `host` before its columns, which are "name Type,
// ...".
struct FleetTable {
	const char *name;
	const char *columns;
	const char *version; // column that tells which row of an order is the last; "" where all are the same
	const char *order;
	bool by_day;  // partitioned by a column `day`, which comes first
	bool minutes; // kept for a shorter time
};

constexpr FleetTable tables[] = {
	{"source", "identity UInt64, claimed_ms Int64", "", "source, identity, host", false, false},
	{"action", "", "", "source, id", true, true}, // by action_columns
	{"sum_minute", "kind UInt8, minute UInt32, key UInt64, version UInt64, sums String", "version",
		"kind, minute, key, source", true, true},
	{"sum_hour", "kind UInt8, hour UInt32, key UInt64, version UInt64, sums String", "version",
		"kind, hour, key, source", true, false},
	{"use_hour", "kind UInt8, hour UInt32, part UInt64, action UInt64, version UInt64, sums String", "version",
		"part, hour, action, source", true, false},
	{"sum_key",
		"kind UInt8, id UInt64, application String, name String, vendor String, subject String, verb String, "
		"place String, finding String, suggestion String, finding_ms Int64, error_class String, message String, "
		"first_ms Int64, last_ms UInt64, caller String",
		"last_ms", "kind, id, source", false, false},
	{"machine",
		"minute UInt32, pool String, samples UInt64, load_milli Int64, memory_bytes Int64, available_bytes Int64, "
		"busy Int64, idle Int64, most_busy Int64, waiting Int64, most_waiting Int64",
		"samples", "minute, source, pool", true, true},
	{"release", "id Int64, at_ms Int64, name String, application String", "", "source, id", false, false},
	{"application",
		"name String, query_ms Int64, query_process Int64, sapi String, php_version String, given String, "
		"packet_ms Int64, packet_process Int64, packets Int64, seen_ms UInt64",
		"seen_ms", "name, source", false, false},
	{"dropped", "minute_ms Int64, application String, reason String, count UInt64", "count",
		"minute_ms, source, application, reason", true, true},
};

const char *type_of(const ActionColumn &column)
{
	if (std::holds_alternative<bool ActionRow::*>(column.field)) return "UInt8";
	if (std::holds_alternative<std::string ActionRow::*>(column.field)) return "String";
	return std::holds_alternative<int64_t ActionRow::*>(column.field) ? "Int64" : "Nullable(Int64)";
}

std::string columns_of(const FleetTable &table)
{
	std::string columns = table.by_day ? "day Date, " : "";
	columns += "source UInt32, host String, ";
	if (*table.columns) return columns + table.columns;
	columns += "id UInt64, account UInt32, transaction_id String, tracer_id String";
	for (const ActionColumn &column : action_columns)
		columns += std::string(", ") + column.name + " " + type_of(column);
	return columns + ", packet String";
}

std::string engine_of(const FleetTable &table)
{
	return std::string("ReplacingMergeTree(") + table.version + ")" + (table.by_day ? " PARTITION BY day" : "") +
		" ORDER BY (" + table.order + ")";
}

// The table that has the rows of one server: of a cluster's table its shard.
std::string local_name(const FleetTable &table, const std::string &cluster)
{
	return std::string(table.name) + (cluster.empty() ? "" : "_shard");
}

// "name Type" of each.
std::vector<std::string> list_of(const std::string &columns)
{
	std::vector<std::string> list;
	for (size_t at = 0; at < columns.size();) {
		const size_t end = std::min(columns.find(", ", at), columns.size());
		list.push_back(columns.substr(at, end - at));
		at = end + 2;
	}
	return list;
}

std::string name_of(const std::string &column)
{
	return column.substr(0, column.find(' '));
}

// What adds the columns that the tables of one host lack, since an older version has made them.
std::vector<std::string> missing_columns(
	ClickHouse &server, size_t host, const StoreUrl &url, const std::string &cluster)
{
	const std::string answer = server.ask_host(
		host, "SELECT table, name FROM system.columns WHERE database = " + quoted(url.database) + " FORMAT RowBinary");
	std::set<std::pair<std::string, std::string>> there;
	for (RowReader row(answer); !row.is_at_end();) {
		std::string table(row.text());
		there.emplace(std::move(table), row.text());
	}
	std::vector<std::string> statements;
	for (const FleetTable &table : tables) {
		for (const std::string &made : std::set<std::string>{local_name(table, cluster), table.name}) {
			std::string sql;
			for (const std::string &column : list_of(columns_of(table))) {
				if (there.contains({made, name_of(column)})) continue;
				if (sql.empty())
					sql.append("ALTER TABLE ").append(url.database).append(".").append(made);
				else
					sql += ",";
				sql.append(" ADD COLUMN ").append(column);
			}
			if (!sql.empty()) statements.push_back(std::move(sql));
		}
	}
	return statements;
}

std::string newest_layout_sql(const std::string &layout)
{
	return "SELECT toInt64(version), toInt64(identity) FROM " + layout +
		" ORDER BY version DESC LIMIT 1 FORMAT RowBinary";
}

void require_not_newer(const StoreUrl &url, int64_t version)
{
	if (version > layout_version)
		throw std::runtime_error(url.shown() + ": layout " + std::to_string(version) +
			" is of a newer quorbit, this one knows " + std::to_string(layout_version));
}

// FNV-1a.
uint64_t hash_of(std::string_view text, uint64_t hash)
{
	for (char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
	return hash;
}

} // namespace

int64_t fleet_key_id(int64_t kind, std::string_view application, std::string_view name)
{
	uint64_t hash = hash_of(std::string(1, static_cast<char>(kind)), 14695981039346656037u);
	hash = hash_of(name, hash_of(std::string_view("\0", 1), hash_of(application, hash)));
	hash ^= hash >> 32;                                                // its low bits alone depend on little
	return static_cast<int64_t>(hash & ((uint64_t{1} << 53) - 1)) | 1; // 0 is none
}

int64_t forgotten_key_id(int64_t source, int64_t id)
{
	return fleet_key_id(0, std::to_string(source), std::to_string(id)) - 1;
}

uint16_t day_of(int64_t wall_ms)
{
	return static_cast<uint16_t>(std::clamp(wall_ms / day_ms, int64_t{0}, int64_t{UINT16_MAX}));
}

std::string insert_into(const char *table)
{
	const auto *found = std::find_if(std::begin(tables), std::end(tables),
		[table](const FleetTable &row) { return std::string_view(row.name) == table; });
	std::string names;
	for (const std::string &column : list_of(columns_of(*found)))
		names += (names.empty() ? "" : ", ") + name_of(column);
	return std::string(table) + " (" + names + ")";
}

std::vector<std::string> setup_statements(const StoreUrl &url, const std::string &cluster)
{
	const std::string prefix = url.database + ".", make = "CREATE TABLE IF NOT EXISTS " + prefix;
	std::vector<std::string> statements = {"CREATE DATABASE IF NOT EXISTS " + url.database,
		make + "layout (version UInt32, identity UInt64) ENGINE = ReplacingMergeTree() ORDER BY version"};
	for (const FleetTable &table : tables) {
		const std::string local = local_name(table, cluster);
		statements.push_back(make + local + " (" + columns_of(table) + ") ENGINE = " + engine_of(table));
		if (cluster.empty()) continue;
		std::string spread = make;
		spread.append(table.name).append(" AS ").append(prefix).append(local);
		spread.append(" ENGINE = Distributed(").append(cluster).append(", ").append(url.database);
		statements.push_back(spread.append(", ").append(local).append(", cityHash64(host))"));
	}
	return statements;
}

void set_up(const StoreUrl &url, const std::string &cluster)
{
	using std::chrono::seconds;
	StoreUrl any = url;
	any.database = "system"; // there is no other yet
	ClickHouse server(any, seconds(60));
	const std::string layout = url.database + ".layout";
	const auto statements = setup_statements(url, cluster);
	int64_t identity = 0;
	std::vector<size_t> without; // hosts that do not have this version yet
	for (size_t host = 0; host < url.hosts.size(); host++) {
		for (const std::string &sql : statements) server.ask_host(host, sql);
		const std::string answer = server.ask_host(host, newest_layout_sql(layout));
		int64_t version = 0;
		if (!answer.empty()) {
			RowReader row(answer);
			version = row.number<int64_t>();
			identity = row.number<int64_t>();
			require_not_newer(url, version);
		}
		if (version == layout_version) continue;
		for (const std::string &sql : missing_columns(server, host, url, cluster)) server.ask_host(host, sql);
		without.push_back(host);
	}
	std::random_device random;
	if (identity == 0) identity = ((static_cast<int64_t>(random()) << 16) ^ random()) & 0xffffffffffff;
	for (size_t host : without)
		server.ask_host(host,
			"INSERT INTO " + layout + " VALUES (" + std::to_string(layout_version) + ", " + std::to_string(identity) +
				")");
}

std::vector<std::string> retain_statements(ClickHouse &server, size_t host, const Retention &retention, int64_t now_ms)
{
	const std::string &database = server.url().database;
	const std::string answer = server.ask_host(host,
		"SELECT DISTINCT table, partition FROM system.parts WHERE active AND database = " + quoted(database) +
			" ORDER BY table, partition FORMAT RowBinary");
	std::vector<std::string> statements;
	for (RowReader row(answer); !row.is_at_end();) {
		const std::string table(row.text()), partition(row.text());
		for (const FleetTable &known : tables) {
			if (!known.by_day || (table != known.name && table != local_name(known, "any"))) continue;
			const int64_t first_ms = now_ms - (known.minutes ? retention.days : retention.hour_days) * day_ms;
			const std::string first = utc_time(first_ms).substr(0, 10);
			// "2026-11-21", in some versions between quotes
			std::string day = partition;
			std::erase(day, '\'');
			if (day >= first) continue;
			std::string drop = "ALTER TABLE ";
			drop.append(database).append(".").append(table).append(" DROP PARTITION '").append(day).append("'");
			statements.push_back(std::move(drop));
		}
	}
	return statements;
}

int64_t fleet_identity(ClickHouse &server)
{
	const std::string where = server.url().shown();
	std::string rows;
	try {
		rows = server.ask(newest_layout_sql("layout"));
	} catch (const ClickHouseError &failure) {
		// Of a table or database that is not there.
		const std::string_view what = failure.what();
		if (what.find("Code: 60") == what.npos && what.find("Code: 81") == what.npos) throw;
	}
	if (rows.empty()) throw std::runtime_error(where + " has no tables yet; `quorbit clickhouse setup` makes them");
	RowReader row(rows);
	const auto version = row.number<int64_t>();
	require_not_newer(server.url(), version);
	if (version < layout_version)
		throw std::runtime_error(where + ": layout " + std::to_string(version) +
			" is of an older quorbit; `quorbit clickhouse setup` brings it up to date");
	return row.number<int64_t>();
}

int64_t fleet_source(ClickHouse &server, const std::string &host, int64_t identity)
{
	const std::string store = quoted(host) + ", " + std::to_string(identity);
	auto holder_of = [&](int64_t number) { // "" for nobody
		return server.ask("SELECT host, toInt64(identity) FROM source WHERE source = " + std::to_string(number) +
			" ORDER BY claimed_ms, host, identity LIMIT 1 FORMAT RowBinary");
	};
	RowWriter ours;
	ours.text(host);
	ours.number(identity);
	auto number = static_cast<int64_t>(hash_of(std::to_string(identity), hash_of(host, 14695981039346656037u)) >> 16) %
		most_sources;
	for (int64_t tried = 0; tried < most_sources; tried++, number = (number + 1) % most_sources) {
		if (number == 0) continue;
		std::string holder = holder_of(number);
		if (holder.empty()) {
			server.ask("INSERT INTO source (source, host, identity, claimed_ms) VALUES (" + std::to_string(number) +
				", " + store + ", " + std::to_string(wall_clock_ms()) + ")");
			holder = holder_of(number); // another may have taken it at the same time
		}
		if (holder == ours.bytes) return number;
	}
	throw ClickHouseError(server.url().shown() + ": has as many stores as it can tell apart", true);
}

} // namespace quorbit
