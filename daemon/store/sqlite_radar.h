// Questions about what the radar has found, and the answers.
#pragma once

#include "facts/radar.h"

namespace quorbit {

// What stands in the way of a version of PHP, and which functions nobody called.
struct RadarQuestion {
	std::string application = {};
	int to_version = 9900; // 803 for 8.3: only what is removed, changed or deprecated up to it
	int64_t now_ms = 0;
	int64_t unused_days = 30; // functions that were compiled, but not called for so long
	int64_t most = 10000;     // of each list, 0 < most
};

struct RadarRow {
	std::string application;
	RadarSite site;                      // `ran`: ever, within 90 days
	const zq_radar_rule *rule = nullptr; // never null in an answer
	int64_t first_ms = 0, last_ms = 0;   // when processes reported it: each does so once an hour at most
	int64_t reports = 0, ran_reports = 0;
	int64_t ran_ms = 0;     // last; 0 for never
	bool is_in_use = false; // the function that has it was called
	std::string path;       // of a request whose process reported it
};

struct UnusedFunction {
	std::string application, file;
	int64_t line = 0;
	std::string name;
	int64_t first_ms = 0, last_ms = 0; // when it was compiled
	int64_t called_ms = 0;             // last; 0 for never
};

struct RadarAnswer {
	std::vector<RadarRow> sites;                        // by version, those that run first, then by place
	std::vector<UnusedFunction> functions;              // by place
	int64_t sites_left_out = 0, functions_left_out = 0; // beyond the number asked for
	std::vector<std::string> applications;              // all that the radar knows, whichever was asked for; by name
};

// What the store of that file has. It is kept for this host alone: no store of a fleet has it. Throws SqliteError.
RadarAnswer find_on_radar(const std::string &store_path, const RadarQuestion &question);

} // namespace quorbit
