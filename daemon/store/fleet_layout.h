// The tables that a fleet's store has in ClickHouse, and what makes, migrates and empties them. Types and engines are
// those of 18.16 and of today's versions.
//
// Rows are never changed. A row of sums, of a key or of an application that has grown is sent again as a whole with a
// greater `version`: the engine keeps the last, and readers look at no other. So what is sent twice counts once.
#pragma once

#include "store/clickhouse.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace quorbit {

// Actions and keys of many stores have numbers of their own in a fleet, which a double holds: of an action its store's
// number and the one that it has there, of a key a hash of its kind, application and name.
constexpr int action_id_bits = 36;
constexpr int64_t most_sources = int64_t{1} << (53 - action_id_bits);
constexpr int64_t fleet_id(int64_t source, int64_t id)
{
	return (source << action_id_bits) | id;
}
constexpr int64_t source_of(int64_t fleet_id)
{
	return fleet_id >> action_id_bits;
}
int64_t fleet_key_id(int64_t kind, std::string_view application, std::string_view name);
// That of a key which its store does not know any more: even, where all others are odd.
int64_t forgotten_key_id(int64_t source, int64_t id);
constexpr bool is_forgotten(int64_t key_id)
{
	return key_id % 2 == 0;
}

// Days since 1970, as a Date is kept.
uint16_t day_of(int64_t wall_ms);

// A table's columns in the order in which they are made, written and named: "table (day, source, ...)".
std::string insert_into(const char *table);

// The statements that make what is missing, for administrators who run them themselves on every server: the database,
// the tables and, where `cluster` names one, the tables that spread rows over its shards by host.
std::vector<std::string> setup_statements(const StoreUrl &url, const std::string &cluster);

// Runs them on every host of the address, adds the columns that tables of an older version lack, and notes the version
// of the layout. Throws ClickHouseError; std::runtime_error when the tables are of a newer version.
void set_up(const StoreUrl &url, const std::string &cluster);

// What drops the days before those kept, on one host: a statement for each partition that is there. Actions and sums by
// minute are kept for `days`, the others for `hour_days`. Throws ClickHouseError.
struct Retention {
	int64_t days = 0, hour_days = 0;
};
std::vector<std::string> retain_statements(ClickHouse &server, size_t host, const Retention &retention, int64_t now_ms);

// The number of a fleet's store by which it is known from any other. Throws std::runtime_error with a message for the
// operator when the tables are not there or are of another version.
int64_t fleet_identity(ClickHouse &server);

// The number that the daemon's store of this identity has in the fleet; a new one when it has none yet. Throws
// ClickHouseError.
int64_t fleet_source(ClickHouse &server, const std::string &host, int64_t identity);

} // namespace quorbit
