// One action in full, for programs.
#include "print/report.h"

#include "facts/plan.h"

#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

// Beyond this, JSON is handed out as text: programs that read the output may recurse.
constexpr size_t most_nesting = 500;

// The agent's JSON as a value; as the text itself when it cannot be that; null for none.
Json embedded(const std::string &text)
{
	if (text.empty()) return nullptr;
	auto value = json_nesting(text) <= most_nesting ? parse_agent_json(text) : std::nullopt;
	return value ? *value : Json(text);
}

Json error_json(const std::optional<ErrorInfo> &error)
{
	if (!error) return nullptr;
	return {{"status", error->status}, {"class", error->cls}, {"message", error->message},
		{"stack", embedded(error->stack)}};
}

Json figures_json(const std::optional<ExactFigures> &exact)
{
	if (!exact) return nullptr;
	Json figures;
	for (const FigureRow &row : figure_rows) {
		if (auto always = std::get_if<int64_t ExactFigures::*>(&row.field)) {
			figures[row.name] = (*exact).**always;
		} else {
			const auto &value = (*exact).*std::get<std::optional<int64_t> ExactFigures::*>(row.field);
			figures[row.name] = value ? Json(*value) : Json();
		}
	}
	return figures;
}

Json statements_json(const Action &action)
{
	Json list = Json::array();
	for (const SqlStatement &sql : action.statements) {
		list.push_back({{"duration_ms", sql.duration_ms}, {"vendor", sql.vendor}, {"statement", sql.statement},
			{"place", sql.place}, {"caller", sql.caller}, {"stack", embedded(sql.stack)},
			{"plan", embedded(sql.plan)}});
	}
	return list;
}

Json caches_json(const Action &action)
{
	Json list = Json::array();
	for (const CacheCall &call : action.caches) {
		list.push_back({{"product", call.product}, {"collection", call.collection}, {"operation", call.operation},
			{"duration_ms", call.duration_ms}});
	}
	return list;
}

Json calls_json(const Action &action)
{
	Json list = Json::array();
	for (const ServiceCall &call : action.services) {
		list.push_back({{"name", call.name}, {"duration_ms", call.duration_ms}, {"callee_id", call.callee_id},
			{"callee_action", call.callee_action}});
	}
	return list;
}

Json failed_calls_json(const Action &action)
{
	Json list = Json::array();
	for (const ServiceError &error : action.service_errors) {
		list.push_back({{"name", error.name}, {"code", error.code}, {"status", error.status},
			{"message", error.message}, {"query", error.query}, {"stack", embedded(error.stack)}});
	}
	return list;
}

Json components_json(const Action &action)
{
	Json list = Json::array();
	for (const Component &component : action.components) {
		list.push_back(
			{{"name", component.name}, {"duration_ms", component.duration_ms}, {"own_ms", component.own_ms}});
	}
	return list;
}

Json pairs_json(const std::vector<NameValue> &pairs)
{
	Json list = Json::array();
	for (const auto &[name, value] : pairs) list.push_back({{"name", name}, {"value", value}});
	return list;
}

Json unknown_json(const Action &action)
{
	Json list = Json::array();
	for (const UnknownRecord &record : action.unknown) list.push_back({{"type", record.type}, {"body", record.body}});
	return list;
}

Json related_json(const std::vector<RelatedAction> &related)
{
	constexpr const char *words[] = {"caller", "callee", "same transaction"};
	Json list = Json::array();
	for (const RelatedAction &other : related) {
		Json entry = {{"relation", words[static_cast<int>(other.relation)]}, {"trace_id", other.tracer_id}};
		entry.update(action_summary(other.row));
		list.push_back(std::move(entry));
	}
	return list;
}

Json group_json(const StatementGroup &group)
{
	const Json plan = embedded(group.plan);
	const std::string finding = plan.is_object() ? plan_finding(plan) : "";
	const std::string suggestion = finding.empty() ? "" : plan_suggestion(plan, group.slowest.statement, group.kind);
	Json places = Json::array();
	for (const auto &[place, us] : group.places.times())
		places.push_back({{"place", place.at}, {"caller", place.caller}});
	return {{"kind", group.kind}, {"vendor", group.slowest.vendor}, {"count", group.count},
		{"total_ms", group.total_ms}, {"slowest_ms", group.slowest.duration_ms}, {"slowest", group.slowest.statement},
		{"place", group.places.most().at}, {"caller", group.places.most().caller}, {"places", places},
		{"stack", embedded(group.stack)}, {"plan", plan}, {"finding", finding.empty() ? Json() : Json(finding)},
		{"suggestion", suggestion.empty() ? Json() : Json(suggestion)}};
}

} // namespace

std::string statement_groups_json(const Action &action)
{
	Json list = Json::array();
	for (const StatementGroup &group : group_statements(action.statements)) list.push_back(group_json(group));
	return json_text(list, false);
}

Json action_json(const StoredAction &shown, const std::vector<RelatedAction> &related)
{
	const Action &action = shown.action;
	Json value = action_summary(shown.row);
	value["account_key"] = action.account_key;
	value["uri"] = action.uri ? Json(*action.uri) : Json();
	value["queued_ms"] = action.block_ms;
	value["cpu_ticks"] = action.cpu_ticks;
	value["system_cpu_ticks"] = action.system_cpu_ticks;
	value["transaction_id"] = action.transaction_id;
	value["trace_id"] = action.tracer_id;
	value["error"] = error_json(action.error);
	value["statements"] = statements_json(action);
	value["cache_totals"] = pairs_json(action.cache_totals);
	value["caches"] = caches_json(action);
	value["calls"] = calls_json(action);
	value["failed_calls"] = failed_calls_json(action);
	value["components"] = components_json(action);
	value["trace"] = embedded(action.trace);
	value["method"] = action.method;
	value["host"] = action.host;
	value["script"] = action.script;
	value["figures"] = figures_json(action.exact);
	value["details"] = pairs_json(action.details);
	value["parameters"] = pairs_json(action.parameters);
	const LeftOut &left_out = action.left_out;
	value["left_out"] = {{"parameters", left_out.parameters}, {"texts", left_out.texts},
		{"statements", left_out.statements}, {"calls", left_out.calls}, {"traces", left_out.traces},
		{"bytes", left_out.bytes}};
	value["unknown"] = unknown_json(action);
	value["unread"] = action.unread;
	value["related"] = related_json(related);
	return value;
}

} // namespace quorbit
