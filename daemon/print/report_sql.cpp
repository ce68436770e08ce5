// The statements of an action, for people.
#include "print/report.h"

#include "facts/plan.h"
#include "facts/sql_text.h"

#include <nlohmann/json.hpp>
#include <algorithm>

namespace quorbit {

namespace {

constexpr size_t most_groups = 10;
constexpr size_t plan_rows = 12;

void print_plan(const std::string &json, Page &page)
{
	auto plan = json.empty() ? std::nullopt : parse_agent_json(json);
	if (!plan) return;
	if (std::string finding = plan_finding(*plan); !finding.empty()) page.entry("finding", finding);
	page.lines("plan", plan_lines(*plan, page.most(page.text_columns()), page.most(plan_rows)));
}

void print_group(const StatementGroup &group, Page &page)
{
	const SqlStatement &slowest = group.slowest;
	std::string times = duration_text(group.total_ms);
	if (group.count > 1)
		times = std::to_string(group.count) + " times, " + times + " together, slowest " +
			duration_text(slowest.duration_ms);
	if (group.count > 1 && group.total_ms == 0) times = std::to_string(group.count) + " times, each under 1 ms";
	page.entry(slowest.vendor.empty() ? "statement" : slowest.vendor, times);
	page.entry("", group.count > 1 ? group.kind : slowest.statement);
	if (size_t places = group.places.size()) {
		std::string others = places == 1 ? "" : ", and " + std::to_string(places - 1) + " other ";
		if (places > 1) others += places == 2 ? "place" : "places";
		page.entry("run at", group.places.most().text() + others);
	}
	if (group.count > 1 && slowest.statement != group.kind) page.entry("slowest", slowest.statement);
	page.stack(group.stack);
	print_plan(group.plan, page);
}

// Why no statement has a line or a plan.
void print_what_is_missing(const std::vector<StatementGroup> &groups, Page &page, bool traced)
{
	auto has_stack = [](const StatementGroup &group) { return !group.stack.empty(); };
	auto has_plan = [](const StatementGroup &group) { return !group.plan.empty(); };
	auto has_line = [](const StatementGroup &group) { return group.places.size() > 0; };
	const char *title = std::any_of(groups.begin(), groups.end(), has_line) ? "no plans" : "no lines";
	if (!traced) return page.entry(title, "statements have their stacks and plans only in actions with a trace");
	if (std::none_of(groups.begin(), groups.end(), has_stack)) {
		return page.entry(title,
			"only statements that take zqs.action_tracer.slow_sql_threshold (500 ms unless set) have a stack and a "
			"plan");
	}
	if (std::any_of(groups.begin(), groups.end(), has_plan)) return;
	page.entry("no plans",
		"only with zqs.action_tracer.explain_enabled = 1, for statements that take "
		"zqs.action_tracer.explain_threshold, "
		"through mysql_query, mysql_db_query, pg_query, pg_query_params or PDO::query");
}

// Each statement as a group of its own, in the order in which they ran.
std::vector<StatementGroup> ungrouped(const std::vector<SqlStatement> &statements)
{
	std::vector<StatementGroup> groups;
	for (const SqlStatement &sql : statements) groups.push_back(group_statements({sql})[0]);
	return groups;
}

} // namespace

std::vector<StatementGroup> group_statements(const std::vector<SqlStatement> &statements)
{
	std::map<std::pair<std::string, std::string>, size_t> indexes;
	std::vector<StatementGroup> groups;
	for (const SqlStatement &sql : statements) {
		std::string kind = normalise_sql(sql.statement, sql.vendor);
		auto [index, is_new] = indexes.try_emplace({sql.vendor, kind}, groups.size());
		if (is_new) groups.push_back({kind, 0, 0, sql, {}, {}, {}});
		StatementGroup &group = groups[index->second];
		bool slowest = is_new || sql.duration_ms > group.slowest.duration_ms;
		if (slowest) group.slowest = sql;
		group.count++;
		group.total_ms += sql.duration_ms;
		if (!sql.stack.empty() && (slowest || group.stack.empty())) group.stack = sql.stack;
		if (!sql.plan.empty() && (slowest || group.plan.empty())) group.plan = sql.plan;
		group.places.add(sql, sql.duration_ms * 1000);
	}
	std::stable_sort(groups.begin(), groups.end(),
		[](const auto &a, const auto &b) { return std::pair(a.total_ms, a.count) > std::pair(b.total_ms, b.count); });
	return groups;
}

void print_statements(const std::vector<SqlStatement> &statements, Page &page, bool traced)
{
	if (statements.empty()) return;
	page.section("SQL");
	auto groups = page.full() ? ungrouped(statements) : group_statements(statements);
	size_t shown = std::min(groups.size(), page.most(most_groups));
	for (size_t i = 0; i < shown; i++) print_group(groups[i], page);
	page.left_out(groups.size() - shown);
	print_what_is_missing(groups, page, traced);
}

} // namespace quorbit
