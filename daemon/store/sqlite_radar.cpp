// Sites with what becomes of them, and functions that nobody calls, from the radar's tables.
#include "store/sqlite_radar.h"

#include "base/clock.h"
#include "store/followed_store.h"

#include <algorithm>
#include <tuple>

namespace quorbit {

namespace {

constexpr const char *sites_sql =
	"SELECT application, file, line, sign, name, function, path, first_ms, last_ms, requests, ifnull(ran_ms, 0), "
	"ran_requests, function != '' AND EXISTS (SELECT 1 FROM radar_function f WHERE f.application = s.application AND "
	"f.file = s.file AND f.name = s.function AND f.called_ms IS NOT NULL) FROM radar_site s "
	"WHERE ?1 = '' OR application = ?1";
// What is compiled now and then, and has been for that long, and was called never or long ago.
constexpr const char *functions_sql =
	"SELECT application, file, line, name, first_ms, last_ms, ifnull(called_ms, 0), count(*) OVER () FROM "
	"radar_function WHERE "
	"(?1 = '' OR application = ?1) AND first_ms <= ?2 AND last_ms > ?2 AND ifnull(called_ms, 0) <= ?2 "
	"ORDER BY application, file, line LIMIT ?3";
constexpr const char *applications_sql =
	"SELECT application FROM radar_site UNION SELECT application FROM radar_function ORDER BY 1";

RadarRow read_site(Statement &select)
{
	RadarRow row;
	row.application = select.text(0);
	row.site.file = select.text(1);
	row.site.line = select.integer(2);
	row.site.sign = static_cast<uint8_t>(select.integer(3));
	row.site.name = select.text(4);
	row.site.function = select.text(5);
	row.path = select.text(6);
	row.first_ms = select.integer(7);
	row.last_ms = select.integer(8);
	row.reports = select.integer(9);
	row.ran_ms = select.integer(10);
	row.ran_reports = select.integer(11);
	row.is_in_use = select.integer(12) != 0;
	row.site.ran = row.ran_ms != 0;
	row.rule = zq_radar_rule_of(row.site.sign, row.site.name);
	return row;
}

void find_sites(Database &database, const RadarQuestion &question, RadarAnswer &answer)
{
	Statement sites(database, sites_sql);
	sites.bind(1, question.application);
	while (sites.step()) {
		RadarRow row = read_site(sites);
		if (row.rule && row.rule->version <= question.to_version) answer.sites.push_back(std::move(row));
	}
	std::stable_sort(answer.sites.begin(), answer.sites.end(), [](const RadarRow &a, const RadarRow &b) {
		return std::tuple(a.rule->version, !a.site.ran) < std::tuple(b.rule->version, !b.site.ran);
	});
	const auto most = static_cast<size_t>(question.most);
	if (answer.sites.size() <= most) return;
	answer.sites_left_out = static_cast<int64_t>(answer.sites.size() - most);
	answer.sites.resize(most);
}

void find_functions(Database &database, const RadarQuestion &question, RadarAnswer &answer)
{
	int64_t all = 0;
	Statement functions(database, functions_sql);
	functions.bind(1, question.application).bind(2, question.now_ms - question.unused_days * day_ms);
	functions.bind(3, question.most);
	while (functions.step()) {
		answer.functions.push_back({functions.text(0), functions.text(1), functions.integer(2), functions.text(3),
			functions.integer(4), functions.integer(5), functions.integer(6)});
		all = functions.integer(7);
	}
	answer.functions_left_out = all - static_cast<int64_t>(answer.functions.size());
}

} // namespace

RadarAnswer find_on_radar(const std::string &store_path, const RadarQuestion &question)
{
	FollowedStore store(store_path, Database::Mode::read_only);
	Unstopped reading;
	Database &database = store.current();
	RadarAnswer answer;
	find_sites(database, question, answer);
	find_functions(database, question, answer);
	Statement applications(database, applications_sql);
	while (applications.step()) answer.applications.push_back(applications.text(0));
	return answer;
}

} // namespace quorbit
