// PHP's processes and what is amiss with them.
#include "print/report.h"

#include "base/clock.h"
#include "base/text.h"

#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

std::string applications_cell(const std::vector<std::string> &names)
{
	std::string text;
	for (const std::string &name : names) text += (text.empty() ? "" : ", ") + (name.empty() ? "(no name)" : name);
	return text.empty() ? "-" : printable(text);
}

std::string when(int64_t wall_ms, int64_t now_ms)
{
	return wall_ms ? ago(wall_ms, now_ms) : "-";
}

Json time_or_null(int64_t wall_ms)
{
	return wall_ms ? Json(utc_time(wall_ms)) : Json();
}

Json group_json(const ProcessGroup &group)
{
	Json processes = Json::array();
	for (const PhpProcess &process : group.processes) processes.push_back(process.id);
	const PhpProcess &first = group.first();
	const ProcessReport &report = group.report;
	return {{"server", name_of(first.server)}, {"pool", first.pool}, {"manages", first.manages},
		{"account", report.account}, {"agent", name_of(first.agent)}, {"processes", processes},
		{"applications", report.applications}, {"last_query", time_or_null(report.query_ms)},
		{"last_packet", time_or_null(report.packet_ms)}, {"reaches_socket", report.reaches && report.same_folder}};
}

Json application_json(const ApplicationRow &row)
{
	return {{"name", row.name}, {"last_query", time_or_null(row.query_ms)}, {"query_process", row.query_process},
		{"last_packet", time_or_null(row.packet_ms)}, {"packet_process", row.packet_process}, {"packets", row.packets},
		{"php_version", row.php_version}, {"sapi", row.sapi}, {"given", parse_given(row.given)}};
}

} // namespace

std::string processes_text(const HostFacts &facts, size_t width)
{
	const std::vector<Column> columns = {{"SERVER"}, {"POOL", false, true}, {"ACCOUNT"}, {"PROCESSES", true}, {"AGENT"},
		{"APPLICATION", false, true}, {"LAST QUERY"}, {"LAST PACKET"}};
	std::vector<std::vector<std::string>> rows;
	for (const ProcessGroup &group : facts.groups) {
		const PhpProcess &first = group.first();
		const ProcessReport &report = group.report;
		rows.push_back({name_of(first.server),
			first.manages            ? "(master)"
				: first.pool.empty() ? "-"
									 : printable(first.pool),
			printable(report.account), std::to_string(group.processes.size()), name_of(first.agent),
			applications_cell(report.applications), when(report.query_ms, facts.now_ms),
			when(report.packet_ms, facts.now_ms)});
	}
	return rows.empty() ? "" : table(columns, rows, width);
}

std::string findings_text(const std::vector<Finding> &findings, bool coloured)
{
	std::string out;
	for (const Finding &finding : findings)
		out += std::string(coloured ? "\x1b[1;31mCHECK\x1b[0m" : "CHECK") + "  " + printable(finding.what) +
			". To mend: " + printable(finding.remedy) + "\n";
	return out;
}

Json host_json(
	const HostFacts &facts, const std::vector<Finding> &findings, const std::vector<ApplicationRow> &applications)
{
	Json groups = Json::array(), found = Json::array(), known = Json::array();
	for (const ProcessGroup &group : facts.groups) groups.push_back(group_json(group));
	for (const Finding &finding : findings) {
		found.push_back({{"check", finding.check}, {"what", finding.what}, {"remedy", finding.remedy},
			{"processes", finding.processes}});
	}
	for (const ApplicationRow &row : applications) known.push_back(application_json(row));
	return {{"good", findings.empty()},
		{"daemon",
			{{"answers", facts.daemon.answers}, {"process", facts.daemon.process}, {"older", facts.daemon.older},
				{"socket", facts.daemon.socket}}},
		{"findings", found}, {"php", groups}, {"applications", known}};
}

} // namespace quorbit
