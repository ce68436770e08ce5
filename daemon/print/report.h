// What the command line prints. Every function returns complete text, harmless for a terminal, or JSON that is valid
// UTF-8.
#pragma once

#include "base/json_text.h"
#include "host/findings.h"
#include "print/page.h"
#include "store/profile_orders.h"
#include "store/reader.h"
#include "facts/places.h"
#include "facts/profile_calls.h"
#include "facts/trace.h"

namespace quorbit {

// --- lists (report_list.cpp)

// A table, one line per action, in `width` columns: long names are cut in the middle. The date is left out when all are
// of today; a fleet's have a column of hosts.
std::string action_table(const std::vector<ActionRow> &rows, size_t width, int64_t now_wall_ms);
// Lines of fixed columns, so that later ones fit below earlier ones: the names share what is left of `width`. An action
// that is not of today has its date in place of the time.
std::string tail_header(size_t width);
std::string tail_line(const ActionRow &row, size_t width, int64_t now_wall_ms);
// The same row for programs: one object.
Json action_summary(const ActionRow &row);

// --- one action (report_action.cpp, report_sql.cpp, report_json.cpp)

// How another stored action belongs to the one that is shown.
enum class Relation { caller, callee, same_transaction };

struct RelatedAction {
	Relation relation;
	ActionRow row;
	std::string trace; // of a caller or callee; JSON, or ""
	std::string tracer_id = {};
};

// The tracer ids of the applications that an action's trace says it called.
std::vector<std::string> called_tracer_ids(const Action &action);
// How `other` belongs to the action that is shown, which called the applications of these tracer ids.
RelatedAction relate(const StoredAction &shown, const std::vector<std::string> &called, const StoredAction &other);

// An action and those that belong to it; nothing when there is none of that id.
struct WholeAction {
	StoredAction shown;
	std::vector<RelatedAction> related;
};
std::optional<WholeAction> whole_action(Reader &store, int64_t id);

// The action in `width` columns: what is repeated is printed once with its count, long texts and tables are cut.
// `full`: nothing is. `given` are the settings of its application, which tell why something is missing.
std::string action_text(const StoredAction &shown, const std::vector<RelatedAction> &related, size_t width, bool full,
	const Settings &given = {});
// The time that an action waited before PHP began; in words when it cannot be true: from before the host was started
// (on the wall clock), or more than ten minutes.
std::string queue_text(const ActionRow &row, int64_t queued_ms, int64_t boot_wall_ms);
// Everything of it as one object, for programs.
Json action_json(const StoredAction &shown, const std::vector<RelatedAction> &related);

// The trace of an action as one flat list, with the plan's finding beside each plan (docs/api.md has the keys); compact
// ASCII text, since traces have thousands of elements. "[]" for no trace.
std::string trace_elements_json(const Action &action);
// The action and its trace in the Trace Event Format, which Perfetto and speedscope open
// (https://docs.google.com/document/d/1CvAClvFfyA5R-PhYUmn5OOQtYMH4h6I0nSsKchNAySU).
std::string trace_events_json(const StoredAction &shown);

// Statements of one action that differ only in their values.
struct StatementGroup {
	std::string kind; // the statement without its values
	int64_t count = 0, total_ms = 0;
	SqlStatement slowest;
	std::string stack, plan; // of the slowest that has one
	Places places;
};
// Groups, those with most time first.
std::vector<StatementGroup> group_statements(const std::vector<SqlStatement> &statements);
// The groups of an action's statements as a list, with the finding of each plan; in one line.
std::string statement_groups_json(const Action &action);
// The section on SQL, of an action with a trace or without.
void print_statements(const std::vector<SqlStatement> &statements, Page &page, bool traced);

// JSON text in ASCII, harmless for a terminal; invalid UTF-8 becomes U+FFFD. In one line, or indented for `pretty`.
std::string json_text(const Json &value, bool pretty);

// --- state (report_status.cpp)

// What was not stored, or not in full: a line for each application and reason; "" when nothing is missing.
std::string dropped_text(const std::vector<DroppedRow> &rows);
// Per application its last query and packet, its PHP and the settings given; "" when there is none.
std::string status_text(const std::vector<ApplicationRow> &applications, int64_t now_wall_ms);
// A line for each profile that waits or runs; "" when none does.
std::string profiles_text(const std::vector<ProfileRow> &profiles, int64_t now_wall_ms);

// --- the host (report_host.cpp)

// A table of PHP's processes in `width` columns, one line per server, pool, account and state of the agent; "" when
// there is none.
std::string processes_text(const HostFacts &facts, size_t width);
// A line for each finding, with what to do; "" when there is none. `coloured` for a terminal.
std::string findings_text(const std::vector<Finding> &findings, bool coloured = false);
// All of it as one object, for programs.
Json host_json(
	const HostFacts &facts, const std::vector<Finding> &findings, const std::vector<ApplicationRow> &applications);

// --- thread profile (report_profile.cpp)

// The functions with most time of their own and the paths on which most was spent, `most` of each, in `width` columns.
std::string profile_text(const ProfileWalk &walk, const CallTree &tree, size_t most, size_t width);

// Prints events as they are added, thread by thread.
class ProfilePrinter {
public:
	// The lines for the next event: enter lines indented by depth, leave lines with the time taken.
	std::string add(const ProfileEvent &event);
	int64_t events() const { return events_; }

private:
	struct Entered {
		std::string kind, name;
		int64_t at_ms;
	};
	int64_t events_ = 0;
	int64_t thread_ = 0;
	int64_t begin_ms_ = 0;
	std::vector<Entered> open_;
};

} // namespace quorbit
