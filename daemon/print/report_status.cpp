// What is known of each application.
#include "print/report.h"

#include "base/text.h"
#include "base/clock.h"

namespace quorbit {

namespace {

std::string when(int64_t wall_ms, int64_t process, int64_t now_wall_ms)
{
	if (wall_ms == 0) return "never";
	return local_time(wall_ms) + " (" + ago(wall_ms, now_wall_ms) + "), process " + std::to_string(process);
}

} // namespace

std::string dropped_text(const std::vector<DroppedRow> &rows)
{
	std::string out = rows.empty() ? "" : "Missing:\n";
	for (const DroppedRow &row : rows) {
		const std::string name = row.application.empty() ? "(no name)" : printable(row.application);
		out += "  " + std::to_string(row.count) + " packets of " + name + ": " + printable(row.reason) + "\n";
	}
	return out;
}

std::string status_text(const std::vector<ApplicationRow> &applications, int64_t now_wall_ms)
{
	std::string out;
	for (const ApplicationRow &application : applications) {
		out += (application.name.empty() ? "(no name)" : printable(application.name)) + "\n";
		out += "  last query    " + when(application.query_ms, application.query_process, now_wall_ms) + "\n";
		out += "  last packet   " + when(application.packet_ms, application.packet_process, now_wall_ms) + "\n";
		out += "  packets       " + std::to_string(application.packets) + "\n";
		out += "  PHP           " + printable(application.php_version + " " + application.sapi) + "\n";
		out += "  given         ";
		std::string_view given = application.given;
		if (given.empty()) out += "nothing: the settings of php.ini hold\n";
		for (bool first = true; !given.empty(); first = false) {
			std::string_view line = given.substr(0, given.find('\n'));
			given.remove_prefix(std::min(given.size(), line.size() + 1));
			out += (first ? "" : "                ") + printable(line) + "\n";
		}
	}
	return out;
}

std::string profiles_text(const std::vector<ProfileRow> &profiles, int64_t now_wall_ms)
{
	std::string out;
	for (const ProfileRow &row : profiles) {
		const std::string name = printable(row.application);
		out += "A profile of " + name + ", " + std::to_string(row.seconds) + " s, ";
		if (row.started_ms)
			out += "was started " + ago(row.started_ms, now_wall_ms) + " by process " + std::to_string(row.process);
		else
			out += "waits since " + local_time(row.ordered_ms) + " for a process to ask";
		out += "; `quorbit profile --stop " + name + "` ends it.\n";
	}
	return out;
}

} // namespace quorbit
