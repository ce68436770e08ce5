// One action in full, for people.
#include "print/report.h"
#include "base/clock.h"
#include "zqp_setting_table.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr size_t most_rows = 10; // of a table
constexpr size_t message_lines = 20;
constexpr size_t most_pairs = 200, most_unknown = 20;

// Cut as the trace's milliseconds are, not rounded: no part is longer than the whole.
std::string cut_duration_text(int64_t us)
{
	constexpr int64_t tenths_until_us = 10000;
	if (us >= tenths_until_us || us % 1000 == 0) return duration_text(us / 1000);
	return std::to_string(us / 1000) + "." + std::to_string(us / 100 % 10) + " ms";
}

// "database 40 ms (33%), code 80 ms (67%)": the parts that took time.
std::string parts_text(const ActionRow &row)
{
	const std::pair<const char *, int64_t> parts[] = {{"database", row.database_us()}, {"caches", row.cache_us()},
		{"outgoing calls", row.external_us()}, {"code", row.code_us()}};
	std::string text;
	for (const auto &[name, us] : parts) {
		if (us)
			text += (text.empty() ? "" : ", ") + std::string(name) + " " + cut_duration_text(us) + " (" +
				percent(us, row.duration_us()) + ")";
	}
	return text;
}

// By the time of day where the front end's stamp is one: the agent sends that figure only when it can be true, and the
// other one then means nothing.
std::string queue_entry(const StoredAction &shown)
{
	const Action &action = shown.action;
	if (action.exact && action.exact->waited_us) return duration_text((*action.exact->waited_us + 500) / 1000);
	return action.block_ms ? queue_text(shown.row, action.block_ms, boot_wall_ms()) : std::string();
}

void print_head(const StoredAction &shown, Page &page)
{
	const auto &[row, action] = shown;
	page.out +=
		"Action " + std::to_string(row.id) + "  " + (row.name.empty() ? "(no name)" : printable(action.name)) + "\n";
	page.entry("application", action.application);
	if (!row.host.empty()) page.entry("on host", row.host);
	std::string status = row.status ? ", status " + std::to_string(row.status) : std::string();
	page.entry("time", local_time(row.received_ms) + ", process " + std::to_string(row.process) + status);
	if (action.uri) page.entry("URI", *action.uri);
	if (!action.path.empty() && action.path != action.uri)
		page.entry("path", action.method + " " + action.host + action.path);
	page.entry("duration",
		cut_duration_text(row.duration_us()) + ", CPU " +
			duration_text(action.cpu_ticks * 1000 / sysconf(_SC_CLK_TCK)));
	if (auto parts = parts_text(row); !parts.empty()) page.entry("spent in", parts);
	if (auto queued = queue_entry(shown); !queued.empty()) page.entry("queued before", queued);
	std::string trace = action.tracer_id.empty() ? std::string() : "trace " + action.tracer_id;
	if (!action.transaction_id.empty())
		page.entry("transaction", action.transaction_id + (trace.empty() ? "" : ", ") + trace);
	else if (!trace.empty())
		page.entry("trace id", action.tracer_id);
}

// A message as its author broke it into lines: those of uncaught exceptions hold the stack.
void print_message(std::string_view text, Page &page)
{
	std::string_view title = "message";
	size_t shown = 0;
	while (!text.empty() && shown++ < page.most(message_lines)) {
		std::string_view line = text.substr(0, text.find('\n'));
		page.entry(std::exchange(title, ""), line);
		text.remove_prefix(std::min(text.size(), line.size() + 1));
	}
}

void print_error(const Action &action, Page &page)
{
	if (action.error) {
		page.section("Error");
		page.entry("class", action.error->cls);
		print_message(action.error->message, page);
		page.stack(action.error->stack);
	}
	for (const ServiceError &error : action.service_errors) {
		page.section("Failed outgoing call");
		page.entry("name", error.name);
		page.entry("code", std::to_string(error.code));
		print_message(error.message, page);
		if (!error.query.empty()) page.entry("query", error.query);
		page.stack(error.stack);
	}
}

void print_caches(const Action &action, Page &page)
{
	if (action.caches.empty()) return;
	page.section("Caches");
	auto caches = action.caches;
	auto slower = [](const CacheCall &a, const CacheCall &b) { return a.duration_ms > b.duration_ms; };
	// Where rows are left out, they are the quickest.
	if (!page.full()) std::stable_sort(caches.begin(), caches.end(), slower);
	std::vector<std::vector<std::string>> cells;
	for (const CacheCall &call : caches) {
		cells.push_back({duration_text(call.duration_ms), printable(call.product), printable(call.collection),
			printable(call.operation)});
	}
	page.rows({{"TIME", true}, {"PRODUCT"}, {"COLLECTION", false, true}, {"OPERATION", false, true}}, cells,
		page.most(most_rows));
}

// Calls of one name that the same action answered.
struct CallGroup {
	std::string name, callee_action;
	int64_t count = 0, total_ms = 0, slowest_ms = 0;
};

std::vector<CallGroup> group_calls(const std::vector<ServiceCall> &calls)
{
	std::vector<CallGroup> groups;
	std::map<std::pair<std::string, std::string>, size_t> places;
	for (const ServiceCall &call : calls) {
		auto [place, is_new] = places.try_emplace({call.name, call.callee_action}, groups.size());
		if (is_new) groups.push_back({call.name, call.callee_action});
		CallGroup &group = groups[place->second];
		group.count++;
		group.total_ms += call.duration_ms;
		group.slowest_ms = std::max(group.slowest_ms, call.duration_ms);
	}
	std::stable_sort(
		groups.begin(), groups.end(), [](const auto &a, const auto &b) { return a.total_ms > b.total_ms; });
	return groups;
}

void print_calls(const Action &action, Page &page)
{
	if (action.services.empty()) return;
	page.section("Outgoing calls");
	auto groups = group_calls(action.services);
	size_t shown = std::min(groups.size(), page.most(most_rows));
	for (size_t i = 0; i < shown; i++) {
		const CallGroup &group = groups[i];
		page.entry(duration_text(group.total_ms), group.name);
		if (group.count > 1)
			page.entry("", std::to_string(group.count) + " times, slowest " + duration_text(group.slowest_ms));
		if (!group.callee_action.empty()) page.entry("", "answered by " + group.callee_action);
	}
	page.left_out(groups.size() - shown);
}

void print_components(const Action &action, Page &page)
{
	auto components = action.components;
	auto is_small = [&action](const Component &component) { return component.duration_ms * 100 <= action.duration_ms; };
	if (!page.full()) std::erase_if(components, is_small);
	if (components.empty()) return;
	page.section("Components");
	std::stable_sort(
		components.begin(), components.end(), [](const auto &a, const auto &b) { return a.own_ms > b.own_ms; });
	std::vector<std::vector<std::string>> cells;
	for (const Component &component : components) {
		cells.push_back(
			{duration_text(component.duration_ms), duration_text(component.own_ms), printable(component.name)});
	}
	page.rows({{"TIME", true}, {"OWN", true}, {"COMPONENT", false, true}}, cells, page.most(most_rows));
}

void print_trace(
	const std::string &trace, const std::vector<WholeTraceText> &texts, const std::string &title, Page &page)
{
	if (trace.empty()) return;
	page.section(title + " (ms: from the start, taken)");
	auto nodes = read_trace(trace);
	if (nodes) apply_whole_texts(texts, *nodes);
	if (nodes)
		page.out += trace_text(*nodes, page.width(), page.full());
	else
		page.entry("unreadable", trace);
}

void print_no_trace(const Action &action, const Settings &given, Page &page)
{
	page.section("Trace");
	if (!action.uri) return page.entry("none", "command-line runs have no trace");
	auto threshold = given.find("zqs.action_tracer.action_threshold");
	int64_t threshold_ms = threshold == given.end() ? 0 : std::max(0, atoi(threshold->second.c_str()));
	if (threshold_ms == 0) threshold_ms = atoi(ZQ_DEFAULT_ACTION_THRESHOLD);
	const std::string from = threshold == given.end() ? ", unless php.ini has another" : "";
	const std::string kept = duration_text(threshold_ms) + from + " (zqs.action_tracer.action_threshold)";
	if (action.duration_ms < threshold_ms)
		return page.entry("none", "the action was faster than the trace threshold, " + kept);
	page.entry("none",
		"the action reached the trace threshold, " + kept +
			", but its process traced nothing: zqs.action_tracer.enabled is 0, or it shed load");
}

void print_related(const std::vector<RelatedAction> &related, Page &page)
{
	if (related.empty()) return;
	page.section("Transaction");
	constexpr const char *words[] = {"called by", "called", "same"};
	for (const auto &[relation, row, trace, id] : related) {
		std::string text = "action " + std::to_string(row.id) + ", " + row.application + ", " + row.name;
		if (!row.host.empty()) text += ", on " + row.host;
		page.entry(words[static_cast<int>(relation)], text + ", " + duration_text(row.duration_ms));
		if (relation == Relation::same_transaction) continue;
		if (auto parts = parts_text(row); !parts.empty()) page.entry("", parts);
	}
	// The other half itself, as far as there is one.
	for (const auto &[relation, row, trace, id] : related) {
		const std::string half = relation == Relation::caller ? "Caller" : "Callee";
		print_trace(trace, {}, half + ": trace of action " + std::to_string(row.id), page);
	}
}

void print_pairs(const char *title, const std::vector<NameValue> &pairs, Page &page)
{
	if (!pairs.empty()) page.section(title);
	size_t shown = std::min(pairs.size(), page.most(most_pairs));
	for (size_t i = 0; i < shown; i++) page.entry(pairs[i].name, pairs[i].value);
	page.left_out(pairs.size() - shown);
}

void print_rest(const Action &action, Page &page)
{
	auto details = action.details;
	// The page's head has these two.
	auto is_told = [](const NameValue &detail) { return detail.name == "httpStatus" || detail.name == "threadName"; };
	if (!page.full()) std::erase_if(details, is_told);
	print_pairs("Request", details, page);
	print_pairs("Parameters", action.parameters, page);
	if (action.left_out.bytes > 0) page.section("Not stored");
	const std::pair<const char *, int64_t> left_out[] = {{"parameters", action.left_out.parameters},
		{"texts", action.left_out.texts}, {"statements", action.left_out.statements}, {"calls", action.left_out.calls},
		{"traces", action.left_out.traces}, {"bytes", action.left_out.bytes}};
	for (const auto &[what, count] : left_out) {
		if (count > 0) page.entry(what, std::to_string(count));
	}
	if (!action.unknown.empty()) page.section("Records unknown to this version");
	size_t shown = std::min(action.unknown.size(), page.most(most_unknown));
	for (size_t i = 0; i < shown; i++) {
		const UnknownRecord &record = action.unknown[i];
		std::string size = std::to_string(record.body.size()) + " bytes: ";
		page.entry("type " + std::to_string(record.type), size + record.body.substr(0, 400));
	}
	page.left_out(action.unknown.size() - shown);
	if (action.unread) page.out += "\n" + std::to_string(action.unread) + " further records were not read.\n";
}

} // namespace

std::string queue_text(const ActionRow &row, int64_t queued_ms, int64_t boot_wall_ms)
{
	constexpr int64_t most_ms = 10 * minute_ms;
	int64_t begin_ms = row.received_ms - row.duration_ms;
	bool before_boot = begin_ms >= boot_wall_ms && begin_ms - queued_ms < boot_wall_ms;
	bool usable = queued_ms >= 0 && queued_ms <= most_ms && !before_boot;
	return usable ? duration_text(queued_ms) : "not usable (see troubleshooting)";
}

std::vector<std::string> called_tracer_ids(const Action &action)
{
	std::vector<std::string> ids;
	auto nodes = action.trace.empty() ? std::nullopt : read_trace(action.trace);
	if (!nodes) return ids;
	for (const TraceNode &node : *nodes) {
		if (node.callee && !node.callee->tracer_id.empty()) ids.push_back(node.callee->tracer_id);
	}
	return ids;
}

RelatedAction relate(const StoredAction &shown, const std::vector<std::string> &called, const StoredAction &other)
{
	auto is_among = [](const std::vector<std::string> &ids, const std::string &tracer_id) {
		return !tracer_id.empty() && std::find(ids.begin(), ids.end(), tracer_id) != ids.end();
	};
	if (is_among(called, other.action.tracer_id))
		return {Relation::callee, other.row, other.action.trace, other.action.tracer_id};
	bool calls = is_among(called_tracer_ids(other.action), shown.action.tracer_id);
	if (calls) return {Relation::caller, other.row, other.action.trace, other.action.tracer_id};
	return {Relation::same_transaction, other.row, {}, other.action.tracer_id};
}

std::optional<WholeAction> whole_action(Reader &store, int64_t id)
{
	auto shown = store.action(id);
	if (!shown) return std::nullopt;
	auto called = called_tracer_ids(shown->action);
	std::vector<RelatedAction> related;
	store.each_related({id, shown->action.transaction_id, called},
		[&](const StoredAction &other) { related.push_back(relate(*shown, called, other)); });
	return WholeAction{std::move(*shown), std::move(related)};
}

std::string action_text(const StoredAction &shown, const std::vector<RelatedAction> &related, size_t width, bool full,
	const Settings &given)
{
	Page page(width, full);
	print_head(shown, page);
	print_error(shown.action, page);
	print_statements(shown.action.statements, page, !shown.action.trace.empty());
	print_caches(shown.action, page);
	print_calls(shown.action, page);
	print_components(shown.action, page);
	if (shown.action.trace.empty())
		print_no_trace(shown.action, given, page);
	else
		print_trace(shown.action.trace, shown.action.trace_texts, "Trace", page);
	print_related(related, page);
	print_rest(shown.action, page);
	return std::move(page.out);
}

} // namespace quorbit
