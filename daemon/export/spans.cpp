// The action, its statements, its outgoing calls and its functions.
#include "export/spans.h"

#include "base/number.h"
#include "base/text.h"
#include "facts/sql_text.h"
#include "facts/trace.h"
#include "zqp_traceparent.h"

#include <algorithm>

namespace quorbit {

namespace {

std::string id_bytes(std::string_view kind, const std::string &text, size_t size)
{
	std::string bytes(size, '\0');
	zq_derive_id(reinterpret_cast<unsigned char *>(bytes.data()), size, kind, text);
	return bytes;
}

std::string transaction_trace_id(const std::string &transaction_id)
{
	std::string bytes(ZQ_TRACE_ID_SIZE, '\0');
	zq_trace_id_of(reinterpret_cast<unsigned char *>(bytes.data()), transaction_id);
	return bytes;
}

std::string call_id(const std::string &callee_tracer_id)
{
	return id_bytes("call", callee_tracer_id, 8);
}

// By what its callee was told, else by the callee's trace; "" when the node is no call of a monitored application and
// no callee was told.
std::string told_id(const Action &action, const TraceNode &node, size_t at)
{
	for (const CallSpan &span : action.call_spans) {
		if (!node.url.empty() && span.node == at) return span.id;
	}
	return node.callee && !node.callee->tracer_id.empty() ? call_id(node.callee->tracer_id) : "";
}

// What database products are called there; others go by "other_sql".
struct DatabaseName {
	const char *vendor, *name;
};
constexpr DatabaseName database_names[] = {{"MySQL", "mysql"}, {"MariaDB", "mariadb"}, {"PostgreSQL", "postgresql"},
	{"Postgres", "postgresql"}, {"SQLite", "sqlite"}, {"Oracle", "oracle.db"}, {"MSSQL", "microsoft.sql_server"}};

std::string database_name(std::string_view vendor)
{
	for (const DatabaseName &row : database_names) {
		if (vendor == row.vendor) return row.name;
	}
	return "other_sql";
}

void add(std::vector<SpanAttribute> &attributes, const char *key, std::string_view text)
{
	if (!text.empty()) attributes.push_back({key, text_of_bytes(text)});
}

// "host:8080", "[::1]:8080" or "host" as an address and a port.
void add_server(std::vector<SpanAttribute> &attributes, std::string_view host)
{
	int64_t port = 0;
	const size_t colon = host.rfind(':');
	const bool has_port = colon != std::string_view::npos && parse_number(host.substr(colon + 1), port) &&
		(host.find(':') == colon || host[colon - 1] == ']');
	if (has_port) host = host.substr(0, colon);
	if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
	add(attributes, "server.address", host);
	if (has_port) attributes.push_back({"server.port", "", port});
}

// Where the client's name does not tell more, the URL up to its query, which may have secrets.
void add_url(std::vector<SpanAttribute> &attributes, std::string_view url)
{
	const std::string_view shown = url.substr(0, url.find_first_of("?#"));
	const size_t begin = shown.find("://");
	if (begin == std::string_view::npos) return;
	std::string_view host = shown.substr(begin + 3);
	host = host.substr(0, host.find('/'));
	const size_t account = host.rfind('@');
	if (account == std::string_view::npos) add(attributes, "url.full", shown);
	add_server(attributes, account == std::string_view::npos ? host : host.substr(account + 1));
}

// Of "http:%2F%2Fhost:81%2Fitem%2F*/curl_exec", which is all that is left of the URL of a call without a trace.
void add_server_of(std::vector<SpanAttribute> &attributes, std::string_view name)
{
	constexpr std::string_view begin = ":%2F%2F", slash = "%2F";
	const size_t at = name.find(begin);
	if (at == std::string_view::npos) return;
	std::string_view host = name.substr(at + begin.size());
	host = host.substr(0, std::min(host.find(slash), host.find('/')));
	const size_t account = host.rfind('@');
	add_server(attributes, account == std::string_view::npos ? host : host.substr(account + 1));
}

class ActionSpans {
public:
	ActionSpans(const StoredAction &stored, const SpanOptions &options)
		: action_(stored.action), row_(stored.row), options_(options)
	{
		const std::string own = std::to_string(options.store) + "/" + std::to_string(stored.row.id);
		const auto &context = action_.trace_context;
		trace_id_ = context                  ? context->trace_id
			: action_.transaction_id.empty() ? id_bytes("action", own, 16)
											 : transaction_trace_id(action_.transaction_id);
		id_ = context ? context->span : id_bytes("span", action_.tracer_id.empty() ? own : action_.tracer_id, 8);
		start_ns_ = (row_.received_ms * 1000 - action_.duration_us()) * 1000;
	}

	std::vector<Span> all()
	{
		spans_.push_back(own());
		if (auto nodes = action_.trace.empty() ? std::nullopt : read_trace(action_.trace)) {
			apply_whole_texts(action_.trace_texts, *nodes);
			add_nodes(*nodes);
			node_count_ = nodes->size();
		}
		for (const CallSpan &call : action_.call_spans) {
			if (call.node >= node_count_ && spans_.size() < options_.most) spans_.push_back(quick_call(call));
		}
		return std::move(spans_);
	}

private:
	Span own() const
	{
		Span span;
		span.trace_id = trace_id_;
		span.id = id_;
		const bool knows_parent = action_.trace_context && !action_.trace_context->parent.empty();
		span.parent = knows_parent ? action_.trace_context->parent : options_.caller;
		span.name = text_of_bytes(action_.name);
		span.kind = action_.uri ? SpanKind::server : SpanKind::internal;
		span.start_ns = start_ns_;
		span.end_ns = start_ns_ + action_.duration_us() * 1000;
		add(span.attributes, "http.request.method", action_.method);
		add(span.attributes, "url.path", action_.path);
		if (!action_.host.empty()) add_server(span.attributes, action_.host);
		const int64_t status = action_.uri ? action_.status() : 0;
		if (status) span.attributes.push_back({"http.response.status_code", "", status});
		if (action_.error) add_error(span);
		return span;
	}

	void add_error(Span &span) const
	{
		const ErrorInfo &error = *action_.error;
		span.failed = true;
		add(span.attributes, "error.type", error.cls.empty() ? std::to_string(error.status) : error.cls);
		SpanEvent event{"exception", span.end_ns, {}};
		add(event.attributes, "exception.type", error.cls);
		add(event.attributes, "exception.message", error.message);
		std::string stack;
		for (const std::string &frame : read_stack(error.stack)) stack += frame + "\n";
		add(event.attributes, "exception.stacktrace", stack);
		if (!event.attributes.empty()) span.events.push_back(std::move(event));
	}

	// The root is the action itself. What has no span leaves its children to what is around it.
	void add_nodes(const std::vector<TraceNode> &nodes)
	{
		std::vector<std::string> open; // span of each level
		for (size_t at = 0; at < nodes.size(); at++) {
			const TraceNode &node = nodes[at];
			open.resize(std::min(open.size(), node.level));
			const std::string &around = open.empty() ? id_ : open.back();
			const bool function = !node.sql && node.url.empty();
			const bool leaves_out = at == 0 || (function && !options_.functions) || spans_.size() >= options_.most;
			if (leaves_out) {
				open.push_back(around);
				continue;
			}
			spans_.push_back(call(node, at, around));
			open.push_back(spans_.back().id);
		}
	}

	Span call(const TraceNode &node, size_t at, const std::string &parent) const
	{
		Span span;
		span.trace_id = trace_id_;
		span.id = told_id(action_, node, at);
		if (span.id.empty()) span.id = id_bytes("node", id_ + std::to_string(at), 8);
		span.parent = parent;
		span.start_ns = start_ns_ + node.start_ms * 1000000;
		span.end_ns = start_ns_ + std::max(node.end_ms, node.start_ms) * 1000000;
		if (node.sql)
			add_statement(span, node);
		else if (!node.url.empty())
			add_outgoing(span, node);
		else
			span.name = text_of_bytes(node.cls.empty() ? node.func : node.cls + "::" + node.func);
		if (span.kind == SpanKind::internal) add(span.attributes, "code.function.name", span.name);
		return span;
	}

	// A call that no trace has, of which the callee was told: its own spans hang below this one.
	Span quick_call(const CallSpan &call) const
	{
		Span span;
		span.trace_id = trace_id_;
		span.id = call.id;
		span.parent = id_;
		span.kind = SpanKind::client;
		span.start_ns = start_ns_ + call.start_us * 1000;
		span.end_ns = span.start_ns + call.duration_us * 1000;
		const bool is_listed = call.call < action_.services.size();
		span.name = is_listed ? text_of_bytes("External/" + action_.services[call.call].name) : "External";
		if (is_listed) add_server_of(span.attributes, action_.services[call.call].name);
		return span;
	}

	// The name of such a call is "Database VENDOR/TABLE/VERB".
	static void add_statement(Span &span, const TraceNode &node)
	{
		constexpr std::string_view prefix = "Database ";
		std::string_view vendor = node.name;
		if (vendor.starts_with(prefix)) vendor.remove_prefix(prefix.size());
		vendor = vendor.substr(0, vendor.find('/'));
		const std::string text = normalise_sql(*node.sql, vendor);
		const SqlSubject subject = subject_of_sql(text);
		span.kind = SpanKind::client;
		span.attributes = statement_attributes(vendor, subject.table, subject.verb);
		add(span.attributes, "db.query.text", text);
		span.name = text_of_bytes(subject.table.empty() ? subject.verb : subject.verb + " " + subject.table);
		if (span.name.empty()) span.name = database_name(vendor);
	}

	static void add_outgoing(Span &span, const TraceNode &node)
	{
		span.kind = SpanKind::client;
		span.name = text_of_bytes(node.name);
		add_url(span.attributes, node.url);
	}

	const Action &action_;
	const ActionRow &row_;
	const SpanOptions &options_;
	std::string trace_id_, id_;
	int64_t start_ns_ = 0;
	std::vector<Span> spans_;
	size_t node_count_ = 0; // of the trace
};

} // namespace

std::string caller_span(const Action &caller, const std::string &tracer_id)
{
	if (caller.trace.empty()) return "";
	const std::vector<TraceNode> nodes = read_trace(caller.trace).value_or(std::vector<TraceNode>());
	for (size_t at = 0; at < nodes.size(); at++) {
		if (nodes[at].callee && nodes[at].callee->tracer_id == tracer_id) return told_id(caller, nodes[at], at);
	}
	return "";
}

std::vector<SpanAttribute> statement_attributes(std::string_view vendor, std::string_view table, std::string_view verb)
{
	std::vector<SpanAttribute> attributes;
	add(attributes, "db.system.name", database_name(vendor));
	add(attributes, "db.operation.name", verb);
	add(attributes, "db.collection.name", table);
	return attributes;
}

std::vector<Span> spans_of(const StoredAction &stored, const SpanOptions &options)
{
	return ActionSpans(stored, options).all();
}

} // namespace quorbit
