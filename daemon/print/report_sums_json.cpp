// Sums for programs: JSON and CSV.
#include "base/clock.h"
#include "print/csv.h"
#include "print/report.h"
#include "print/report_sums.h"

#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

struct Figure {
	const char *name;
	int64_t (*of)(const Sums &sums);
};

// The figures of every sum, in JSON and CSV alike.
constexpr Figure figures[] = {
	{"count", [](const Sums &sums) { return sums.count; }},
	{"errors", [](const Sums &sums) { return sums.errors; }},
	{"total_us", [](const Sums &sums) { return sums.total_us; }},
	{"average_us", [](const Sums &sums) { return sums.average_us(); }},
	{"p50_us", [](const Sums &sums) { return sums.durations.percentile_us(0.5); }},
	{"p95_us", [](const Sums &sums) { return sums.durations.percentile_us(0.95); }},
	{"p99_us", [](const Sums &sums) { return sums.durations.percentile_us(0.99); }},
	{"database_us", [](const Sums &sums) { return sums.database_us; }},
	{"cache_us", [](const Sums &sums) { return sums.cache_us; }},
	{"external_us", [](const Sums &sums) { return sums.external_us; }},
	{"code_us", [](const Sums &sums) { return sums.code_us; }},
	{"waiting_us", [](const Sums &sums) { return sums.waiting_us; }},
	{"cpu_us", [](const Sums &sums) { return sums.cpu_us; }},
	{"statements", [](const Sums &sums) { return sums.statements; }},
	{"slowest_id", [](const Sums &sums) { return sums.slowest_id; }},
	{"newest_id", [](const Sums &sums) { return sums.newest_id; }},
	{"chance_id", [](const Sums &sums) { return sums.chance_id; }},
};

} // namespace

Json figures_json(const Sums &sums)
{
	Json object = Json::object();
	for (const Figure &figure : figures) object[figure.name] = figure.of(sums);
	return object;
}

namespace {

Json facts_json(const KeyFacts &facts)
{
	Json object = {{"id", facts.id}, {"application", facts.application}, {"name", facts.name}};
	const std::pair<const char *, const std::string *> texts[] = {{"vendor", &facts.vendor}, {"table", &facts.table},
		{"verb", &facts.verb}, {"place", &facts.place}, {"caller", &facts.caller}, {"finding", &facts.finding},
		{"suggestion", &facts.suggestion}, {"class", &facts.error_class}, {"message", &facts.message}};
	for (const auto &[name, text] : texts) {
		if (!text->empty()) object[name] = *text;
	}
	if (facts.first_ms) object["first_seen"] = utc_time(facts.first_ms);
	if (facts.last_ms) object["last_seen"] = utc_time(facts.last_ms);
	return object;
}

Json row_json(const SumRow &row)
{
	Json object = facts_json(row.key);
	object.update(figures_json(row.sums));
	if (row.trend.empty()) return object;
	Json &trend = object["trend"] = Json::array();
	for (const TrendPoint &point : row.trend)
		trend.push_back({{"count", point.count}, {"errors", point.errors}, {"total_us", point.total_us}});
	return object;
}

Json rows_json(const std::vector<SumRow> &rows)
{
	Json list = Json::array();
	for (const SumRow &row : rows) list.push_back(row_json(row));
	return list;
}

Json machine_json(const std::vector<MachineRow> &machine)
{
	Json list = Json::array();
	for (const MachineRow &row : machine) {
		Json pools = Json::array();
		for (const PoolRow &pool : row.pools) {
			pools.push_back({{"name", pool.name}, {"busy", pool.busy}, {"most_busy", pool.most_busy},
				{"idle", pool.idle}, {"waiting", pool.waiting}, {"most_waiting", pool.most_waiting}});
		}
		list.push_back({{"host", row.host}, {"load", row.load}, {"memory_bytes", row.memory_bytes},
			{"available_bytes", row.available_bytes}, {"pools", pools}});
	}
	return list;
}

Json range_json(const TimeRange &range)
{
	return {{"from", utc_time(range.from_ms)}, {"until", utc_time(range.until_ms)}};
}

// [[microseconds, how many], ...]
Json durations_json(const Histogram &durations)
{
	Json list = Json::array();
	for (size_t i = 0; i < durations.counts().size(); i++) {
		const int64_t count = durations.counts()[i];
		if (count) list.push_back({Histogram::duration_of(durations.first() + static_cast<int>(i)), count});
	}
	return list;
}

} // namespace

Json sums_json(const SumList &list)
{
	Json object = range_json(list.answer.range);
	object["by"] = name_of(list.question.key);
	object["sort"] = name_of(list.question.order);
	object["left_out"] = list.answer.left_out;
	object["all"] = figures_json(list.answer.all);
	object["rows"] = rows_json(list.answer.rows);
	for (Json &row : object["rows"]) {
		auto found = list.actions.find(row["id"].get<int64_t>());
		if (found != list.actions.end()) row["actions"] = rows_json(found->second);
	}
	for (size_t i = 0; i < list.answer.rows.size() && !list.releases.empty(); i++) {
		const ReleaseRow *release = new_since(list, list.answer.rows[i].key);
		if (release) object["rows"][i]["new_since"] = release->name;
	}
	if (!list.machine.empty()) object["machine"] = machine_json(list.machine);
	return object;
}

std::string sums_csv(const SumList &list)
{
	std::string text = "id,application,name";
	for (const Figure &figure : figures) text += std::string(",") + figure.name;
	text += "\r\n";
	for (const SumRow &row : list.answer.rows) {
		text += std::to_string(row.key.id) + "," + csv_cell(row.key.application) + "," + csv_cell(row.key.name);
		for (const Figure &figure : figures) text += "," + std::to_string(figure.of(row.sums));
		text += "\r\n";
	}
	return text;
}

Json key_json(const KeyReport &report)
{
	Json object = range_json(report.range);
	object["kind"] = name_of(report.key);
	object.update(row_json(report.row));
	Json &series = object["series"] = Json::array();
	for (const SeriesPoint &point : report.series) {
		Json entry = {{"at", utc_time(point.at_ms)}, {"step_ms", point.step_ms}};
		entry.update(figures_json(point.sums));
		series.push_back(std::move(entry));
	}
	for (const auto &[key, answer] : report.related) object["related"][name_of(key)] = rows_json(answer.rows);
	return object;
}

Json releases_json(const std::vector<ReleaseRow> &releases)
{
	Json list = Json::array();
	for (const ReleaseRow &row : releases)
		list.push_back({{"at", utc_time(row.at_ms)}, {"name", row.name}, {"application", row.application}});
	return list;
}

Json series_json(const SeriesReport &report)
{
	Json object = range_json(report.range);
	object["step_ms"] = report.step_ms;
	std::vector<ReleaseRow> releases = report.releases;
	std::erase_if(releases, [&report](const ReleaseRow &row) {
		return row.at_ms < report.range.from_ms || row.at_ms >= report.range.until_ms;
	});
	object["releases"] = releases_json(releases);
	if (!report.machine.empty()) object["machine"] = machine_json(report.machine);
	for (size_t i = 0; i < report.machine.size(); i++) object["machine"][i]["at"] = utc_time(report.machine[i].at_ms);
	Json &points = object["points"] = Json::array();
	for (const SeriesPoint &point : report.points) {
		Json entry = {{"at", utc_time(point.at_ms)}};
		entry.update(figures_json(point.sums));
		if (report.durations) entry["durations"] = durations_json(point.sums.durations);
		points.push_back(std::move(entry));
	}
	return object;
}

Json comparison_json(const Comparison &comparison)
{
	constexpr const char *kinds[] = {"appeared", "more_often", "slower", "faster", "less_often", "vanished"};
	Json object = {{"before", range_json(comparison.before)}, {"after", range_json(comparison.after)},
		{"test", "Mann-Whitney U"}, {"error_test", "Przyborowski-Wilenski"}, {"compared", comparison.compared},
		{"too_few_samples", comparison.too_few}};
	Json &changes = object["changes"] = Json::array();
	for (const Change &change : comparison.changes) {
		Json entry = {{"change", kinds[static_cast<size_t>(change.kind)]}, {"by", name_of(change.key)}};
		entry.update(facts_json(change.facts));
		entry["lost_us_per_hour"] = std::llround(change.lost_us_per_hour);
		entry["p"] = change.p;
		entry["before"] = figures_json(change.before);
		entry["after"] = figures_json(change.after);
		changes.push_back(std::move(entry));
	}
	return object;
}

} // namespace quorbit
