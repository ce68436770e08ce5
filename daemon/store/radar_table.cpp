// Adding to the radar's tables.
#include "store/radar_table.h"

#include "base/clock.h"
#include "store/action_columns.h"

#include <set>

namespace quorbit {

namespace {

// ?10: there is room for a new row
constexpr const char *site_sql =
	"INSERT INTO radar_site (application, file, line, sign, name, function, path, first_ms, last_ms, requests, ran_ms, "
	"ran_requests) SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?8, ?11, iif(?9, ?8, NULL), ?9 WHERE ?10 OR EXISTS (SELECT 1 "
	"FROM radar_site WHERE application = ?1 AND file = ?2 AND line = ?3 AND sign = ?4 AND name = ?5) "
	"ON CONFLICT DO UPDATE SET last_ms = max(last_ms, ?8), requests = requests + ?11, ran_ms = iif(?9, ?8, ran_ms), "
	"ran_requests = ran_requests + ?9, function = iif(?6 = '', function, ?6), path = iif(?7 = '', path, ?7)";
constexpr const char *function_sql =
	"INSERT INTO radar_function (application, file, line, name, first_ms, last_ms, called_ms) "
	"SELECT ?1, ?2, ?3, ?4, ?5, ?5, iif(?6, ?5, NULL) WHERE ?7 OR EXISTS (SELECT 1 FROM radar_function WHERE "
	"application = ?1 AND file = ?2 AND line = ?3) "
	"ON CONFLICT DO UPDATE SET last_ms = max(last_ms, ?5), name = ?4, called_ms = iif(?6, ?5, called_ms)";

} // namespace

RadarTable::RadarTable(Database &database)
	: database_(database), add_site_(database, site_sql), add_function_(database, function_sql)
{
	forget();
}

void RadarTable::forget()
{
	sites_ = database_.integer("SELECT count(*) FROM radar_site");
	functions_ = database_.integer("SELECT count(*) FROM radar_function");
}

void RadarTable::add(
	const std::string &application, std::string_view path, const RadarFindings &findings, int64_t now_wall_ms)
{
	const std::string_view app = column_text(application), example = column_text(path);
	std::set<std::tuple<std::string_view, int64_t, uint8_t, std::string_view>> counted; // once for each request
	for (const RadarSite &site : findings.sites) {
		const bool first = counted.insert({site.file, site.line, site.sign, site.name}).second;
		add_site_.bind(1, app).bind(2, column_text(site.file)).bind(3, site.line).bind(4, int64_t{site.sign});
		add_site_.bind(5, column_text(site.name)).bind(6, column_text(site.function)).bind(7, example);
		add_site_.bind(8, now_wall_ms).bind(9, int64_t{site.ran}).bind(10, int64_t{sites_ < most_radar_sites});
		add_site_.bind(11, int64_t{first}).run();
	}
	for (const RadarFunction &function : findings.functions) {
		add_function_.bind(1, app).bind(2, column_text(function.file)).bind(3, function.line);
		add_function_.bind(4, column_text(function.name)).bind(5, now_wall_ms).bind(6, int64_t{function.called});
		add_function_.bind(7, int64_t{functions_ < most_radar_functions}).run();
	}
	sites_ += static_cast<int64_t>(findings.sites.size()); // if all were new: counted when that would be too many
	functions_ += static_cast<int64_t>(findings.functions.size());
	if (sites_ >= most_radar_sites || functions_ >= most_radar_functions) forget();
}

void RadarTable::limit(int64_t now_wall_ms)
{
	if (now_wall_ms - limited_ms_ < hour_ms && now_wall_ms >= limited_ms_) return;
	limited_ms_ = now_wall_ms;
	for (const char *sql :
		{"DELETE FROM radar_site WHERE last_ms < ?", "DELETE FROM radar_function WHERE last_ms < ?"}) {
		Statement remove(database_, sql);
		remove.bind(1, now_wall_ms - radar_days * day_ms).run();
	}
	forget();
}

} // namespace quorbit
