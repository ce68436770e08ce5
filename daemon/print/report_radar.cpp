// The radar's answers in four forms.
#include "print/report_radar.h"

#include "base/clock.h"
#include "base/text.h"
#include "base/version.h"
#include "print/csv.h"

#include <cctype>
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
	return row.site.ran ? "ran " + ago(row.ran_ms, now_ms) : use_of(row);
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

std::string labelled(const std::string &label, const std::string &text)
{
	constexpr size_t indent = 2, width = 17; // of "function in use", and two blanks
	return std::string(indent, ' ') + label + std::string(width - std::min(label.size(), width - 1), ' ') + text + "\n";
}

// A use, what becomes of it, and its places, which are not cut: they are to be opened.
std::string use_part(const std::vector<const RadarRow *> &places, const RadarQuestion &question)
{
	const RadarRow &first = *places.front();
	std::string text = "\n" + printable(use_text(first.site)) + "\n" +
		labelled(effects[first.rule->effect], std::string(what_of(first))) +
		labelled("instead", std::string(first.rule->instead));
	for (const RadarRow *row : places) {
		const std::string application = question.application.empty() ? "  in " + printable(row->application) : "";
		text += labelled(
			last_run(*row, question.now_ms), printable(place_text(row->site.file, row->site.line)) + application);
	}
	return text;
}

// What must change before one version: uses in the order of their first places.
std::string version_part(const std::vector<const RadarRow *> &rows, const RadarQuestion &question)
{
	std::vector<std::vector<const RadarRow *>> uses;
	std::map<std::pair<const zq_radar_rule *, std::string>, size_t> numbers;
	size_t running = 0;
	for (const RadarRow *row : rows) {
		running += row->site.ran;
		const size_t number = numbers.try_emplace({row->rule, use_text(row->site)}, uses.size()).first->second;
		if (number == uses.size()) uses.emplace_back();
		uses[number].push_back(row);
	}
	std::string text = title_of(rows.front()->rule->version, rows.size(), running);
	for (const auto &places : uses) text += use_part(places, question);
	return text;
}

std::string nothing_found(const RadarQuestion &question)
{
	return (question.to_version == RadarQuestion().to_version
				   ? "Nothing found yet that stands in the way of another version of PHP."
				   : "Nothing found yet that must change before PHP " + version_text(question.to_version) + ".") +
		std::string(" An agent reports what its processes compile and run.\n");
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
	const size_t count = cells.size() + static_cast<size_t>(answer.functions_left_out);
	return "\nCompiled, but not called for " + std::to_string(question.unused_days) +
		" days: " + std::to_string(count) + (count == 1 ? " function, which needs" : " functions, which need") +
		" no migration\n" + table(columns, cells, width);
}

std::string rule_id(const RadarRow &row)
{
	return std::to_string(row.site.sign) + "/" + row.site.name;
}

// RFC 3986: what is not unreserved in a path stands as its bytes.
std::string file_uri(const std::string &path)
{
	constexpr char hex[] = "0123456789ABCDEF";
	std::string uri = "file://";
	for (const char c : path) {
		if (isalnum(static_cast<unsigned char>(c)) || std::string_view("-._~/").find(c) != std::string_view::npos)
			uri += c;
		else
			uri += {'%', hex[static_cast<unsigned char>(c) >> 4], hex[c & 15]};
	}
	return uri;
}

Json sarif_result(const RadarRow &row)
{
	Json region = row.site.line ? Json{{"startLine", row.site.line}} : Json::object();
	Json location = {{"artifactLocation", {{"uri", file_uri(row.site.file)}}}};
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
	for (const auto &[version, rows] : versions) text += (text.empty() ? "" : "\n") + version_part(rows, question);
	if (text.empty()) text = nothing_found(question);
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
