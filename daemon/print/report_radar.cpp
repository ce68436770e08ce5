// The radar's answers in four forms.
#include "print/report_radar.h"

#include "base/clock.h"
#include "base/text.h"
#include "base/version.h"
#include "print/csv.h"

#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace quorbit {

namespace {

constexpr const char *effects[] = {"removed", "changed", "deprecated"};
constexpr const char *levels[] = {"error", "warning", "note"};

// How the use is written in code.
std::string use_text(const RadarSite &site)
{
	if (site.sign < ZQ_SIGN_SETTING) return site.name + "()";
	switch (site.sign) {
	case ZQ_SIGN_VARIABLE: return "$" + site.name;
	case ZQ_SIGN_CLASS_NAME:
	case ZQ_SIGN_RESERVED_NAME: return "class " + site.name;
	case ZQ_SIGN_FUNCTION_NAME: return "function " + site.name + "()";
	case ZQ_SIGN_INTERFACE: return "implements " + site.name;
	default: return site.name;
	}
}

std::string place_text(const std::string &file, int64_t line)
{
	return line ? file + ":" + std::to_string(line) : file;
}

// What is known of whether it runs.
const char *use_of(const RadarRow &row)
{
	return row.site.ran ? "runs" : row.is_in_use ? "function in use" : "not seen";
}

std::string last_run(const RadarRow &row, int64_t now_ms)
{
	return row.site.ran ? ago(row.ran_ms, now_ms) : use_of(row);
}

std::string_view what_of(const RadarRow &row)
{
	return row.rule->what;
}

std::string title_of(int version, size_t places, size_t running)
{
	return "PHP " + version_text(version) + ": " + std::to_string(places) + (places == 1 ? " place, " : " places, ") +
		std::to_string(running) + " seen running\n";
}

// The rows of one version.
std::string version_part(const std::vector<const RadarRow *> &rows, const RadarQuestion &question, size_t width)
{
	std::vector<Column> columns = {{"USE", false, true}, {"PLACE", false, true}, {"LAST RUN"}, {"EFFECT"},
		{"WHAT HAPPENS", false, true}, {"INSTEAD", false, true}};
	if (question.application.empty()) columns.push_back({"APPLICATION", false, true});
	std::vector<std::vector<std::string>> cells;
	size_t running = 0;
	for (const RadarRow *row : rows) {
		running += row->site.ran;
		cells.push_back({printable(use_text(row->site)), printable(place_text(row->site.file, row->site.line)),
			last_run(*row, question.now_ms), effects[row->rule->effect], std::string(what_of(*row)),
			std::string(row->rule->instead)});
		if (question.application.empty()) cells.back().push_back(printable(row->application));
	}
	return title_of(rows.front()->rule->version, rows.size(), running) + table(columns, cells, width);
}

std::string functions_part(const RadarAnswer &answer, const RadarQuestion &question, size_t width)
{
	if (answer.functions.empty()) return "";
	const std::vector<Column> columns = {{"FUNCTION", false, true}, {"PLACE", false, true}, {"KNOWN SINCE"},
		{"LAST COMPILED"}, {"LAST CALLED"}, {"APPLICATION", false, true}};
	std::vector<std::vector<std::string>> cells;
	for (const UnusedFunction &function : answer.functions)
		cells.push_back({printable(function.name), printable(place_text(function.file, function.line)),
			ago(function.first_ms, question.now_ms), ago(function.last_ms, question.now_ms),
			function.called_ms ? ago(function.called_ms, question.now_ms) : "never", printable(function.application)});
	return "\nCompiled, but not called for " + std::to_string(question.unused_days) +
		" days: " + std::to_string(cells.size() + static_cast<size_t>(answer.functions_left_out)) +
		" functions, which need no migration\n" + table(columns, cells, width);
}

std::string rule_id(const RadarRow &row)
{
	return std::to_string(row.site.sign) + "/" + row.site.name;
}

Json sarif_result(const RadarRow &row)
{
	Json region = row.site.line ? Json{{"startLine", row.site.line}} : Json::object();
	Json location = {{"artifactLocation", {{"uri", "file://" + row.site.file}}}};
	if (row.site.line) location["region"] = std::move(region);
	const std::string text = use_text(row.site) + ": " + std::string(what_of(row)) + " in PHP " +
		version_text(row.rule->version) + "; instead: " + std::string(row.rule->instead);
	return {{"ruleId", rule_id(row)}, {"level", levels[row.rule->effect]}, {"message", {{"text", text}}},
		{"locations", Json::array({{{"physicalLocation", std::move(location)}}})},
		{"properties", {{"application", row.application}, {"use", use_of(row)}}}};
}

} // namespace

std::string radar_text(const RadarAnswer &answer, const RadarQuestion &question, size_t width)
{
	std::map<int, std::vector<const RadarRow *>> versions;
	for (const RadarRow &row : answer.sites) versions[row.rule->version].push_back(&row);
	std::string text;
	for (const auto &[version, rows] : versions)
		text += (text.empty() ? "" : "\n") + version_part(rows, question, width);
	if (text.empty())
		text =
			"Nothing found yet that stands in the way of another version of PHP. An agent reports what its processes "
			"compile and run.\n";
	if (answer.sites_left_out) text += "and " + std::to_string(answer.sites_left_out) + " more places\n";
	return text + functions_part(answer, question, width);
}

Json radar_json(const RadarAnswer &answer)
{
	std::set<int> versions;
	for (const zq_radar_rule &rule : zq_radar_rules) versions.insert(rule.version);
	Json object = {{"sites", Json::array()}, {"sites_left_out", answer.sites_left_out},
		{"unused_functions", Json::array()}, {"unused_functions_left_out", answer.functions_left_out},
		{"applications", answer.applications}, {"versions", Json::array()}};
	for (int version : versions) object["versions"].push_back(version_text(version));
	for (const RadarRow &row : answer.sites)
		object["sites"].push_back({{"application", row.application}, {"version", version_text(row.rule->version)},
			{"effect", effects[row.rule->effect]}, {"use", use_text(row.site)}, {"file", row.site.file},
			{"line", row.site.line}, {"function", row.site.function}, {"what", row.rule->what},
			{"instead", row.rule->instead}, {"evidence", use_of(row)}, {"first", utc_time(row.first_ms)},
			{"last", utc_time(row.last_ms)}, {"last_run", row.ran_ms ? Json(utc_time(row.ran_ms)) : Json()},
			{"reports", row.reports}, {"run_reports", row.ran_reports}, {"path", row.path}});
	for (const UnusedFunction &function : answer.functions)
		object["unused_functions"].push_back(
			{{"application", function.application}, {"file", function.file}, {"line", function.line},
				{"name", function.name}, {"first", utc_time(function.first_ms)}, {"last", utc_time(function.last_ms)},
				{"last_called", function.called_ms ? Json(utc_time(function.called_ms)) : Json()}});
	return object;
}

std::string radar_csv(const RadarAnswer &answer)
{
	std::string text =
		"version,effect,use,file,line,function,evidence,last_run,first,last,reports,application,what,instead,path\r\n";
	for (const RadarRow &row : answer.sites) {
		const std::string cells[] = {version_text(row.rule->version), effects[row.rule->effect], use_text(row.site),
			row.site.file, std::to_string(row.site.line), row.site.function, use_of(row),
			row.ran_ms ? utc_time(row.ran_ms) : "", utc_time(row.first_ms), utc_time(row.last_ms),
			std::to_string(row.reports), row.application, std::string(what_of(row)), std::string(row.rule->instead),
			row.path};
		for (const std::string &cell : cells) text += (&cell == cells ? "" : ",") + csv_cell(cell);
		text += "\r\n";
	}
	return text;
}

Json radar_sarif(const RadarAnswer &answer)
{
	std::map<std::string, Json> rules;
	Json results = Json::array();
	for (const RadarRow &row : answer.sites) {
		const std::string id = rule_id(row);
		rules.try_emplace(id,
			Json{{"id", id}, {"shortDescription", {{"text", use_text(row.site)}}},
				{"help", {{"text", std::string(row.rule->instead)}}}});
		results.push_back(sarif_result(row));
	}
	Json listed = Json::array();
	for (auto &[id, rule] : rules) listed.push_back(std::move(rule));
	const Json driver = {{"name", "quorbit"}, {"version", product_version}, {"rules", std::move(listed)}};
	return {{"version", "2.1.0"}, {"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
		{"runs", Json::array({{{"tool", {{"driver", driver}}}, {"results", std::move(results)}}})}};
}

} // namespace quorbit
