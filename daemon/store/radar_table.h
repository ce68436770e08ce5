// What the radar has found, kept in the store for 90 days after it was last seen.
#pragma once

#include "facts/radar.h"
#include "store/sqlite.h"

namespace quorbit {

// Kept; what is new beyond that is not, until others have not been seen for long.
constexpr int64_t most_radar_sites = 50000, most_radar_functions = 200000;

// Every function throws SqliteError.
class RadarTable {
public:
	explicit RadarTable(Database &database);

	// Within a transaction. `path` of the request that found it, "" for none.
	void add(const std::string &application, std::string_view path, const RadarFindings &findings, int64_t now_wall_ms);
	// Removes what has not been seen for long, once an hour.
	void limit(int64_t now_wall_ms);
	// Counts again what there is: a transaction may have been taken back.
	void forget();

private:
	Database &database_;
	Statement add_site_, add_function_;
	int64_t sites_ = 0, functions_ = 0;
	int64_t limited_ms_ = 0;
};

} // namespace quorbit
