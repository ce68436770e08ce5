// One action, decoded in full from its metric packet; and the events of a thread profile.
#pragma once

#include "facts/details.h"
#include "facts/share.h"

namespace quorbit {

struct SqlStatement {
	int64_t duration_ms = 0;
	std::string vendor;
	std::string statement;
	std::string stack;       // JSON list of frames, or ""
	std::string plan;        // JSON object, or ""
	std::string place = {};  // "file:line" that ran it, or ""
	std::string caller = {}; // "file:line" that called that code, of another class or file; or ""
};

struct CacheCall {
	std::string product;    // "Memcached", "MongoDB", "Redis"
	std::string collection; // MongoDB only
	std::string operation;
	int64_t duration_ms = 0;
};

struct ServiceCall {
	std::string name; // normalised URL and the client that called it
	int64_t duration_ms = 0;
	std::string callee_id, callee_action; // of a monitored callee, else ""
};

struct ServiceError {
	std::string name;
	int64_t code = 0;
	std::string status, message, query, stack;
};

struct Component {
	std::string name;
	int64_t duration_ms = 0;
	int64_t own_ms = 0; // without the components inside it
};

struct ErrorInfo {
	int64_t status = 0; // of the response
	std::string cls, message, stack;
};

struct NameValue {
	std::string name, value;
};

struct UnknownRecord {
	uint8_t type;
	std::string body;
};

struct Action {
	std::string application, account_key;
	std::string name;               // "" when the action has none
	std::optional<std::string> uri; // web requests only
	int64_t duration_ms = 0, block_ms = 0, database_ms = 0, cache_ms = 0, external_ms = 0;
	int64_t cpu_ticks = 0;        // user and system time of the process since the action began, in clock ticks
	int64_t system_cpu_ticks = 0; // system time of the thread since it began, in clock ticks
	std::vector<SqlStatement> statements;
	std::vector<NameValue> cache_totals; // product, milliseconds
	std::vector<CacheCall> caches;
	std::vector<ServiceCall> services;
	std::vector<ServiceError> service_errors;
	std::vector<Component> components;
	std::optional<ErrorInfo> error;
	std::string trace; // JSON, or ""
	std::string transaction_id, tracer_id;
	std::vector<NameValue> details, parameters;
	LeftOut left_out; // when it was stored: what was more than its share
	// Of the details record, which only a daemon that asks gets: nothing and "" without it.
	std::optional<ExactFigures> exact = std::nullopt;
	std::string path, method, host, script;
	std::vector<WholeTraceText> trace_texts;
	std::optional<TraceContext> trace_context = std::nullopt;
	std::vector<CallSpan> call_spans = {};
	int64_t unread = 0;                 // now, of what was stored: records beyond the first 100,000 that make lists
	std::vector<UnknownRecord> unknown; // of an unknown type, or of a form that this version cannot read

	// The response status: from the details, else from the error; 0 for a command-line run.
	int64_t status() const;
	// Microseconds: exact, or the milliseconds of the other records.
	int64_t duration_us() const { return exact ? exact->duration_us : duration_ms * 1000; }
	int64_t database_us() const { return exact ? exact->database_us : database_ms * 1000; }
	int64_t cache_us() const { return exact ? exact->cache_us : cache_ms * 1000; }
	int64_t external_us() const { return exact ? exact->external_us : external_ms * 1000; }
	// The duration less database, caches and outgoing calls; never negative.
	int64_t code_us() const { return exact ? exact->code_us() : code_ms() * 1000; }
	// Statements that ran, also those whose texts were not sent.
	int64_t statement_count() const { return exact ? exact->statements : static_cast<int64_t>(statements.size()); }
	// The duration less database, caches and outgoing calls; never negative.
	int64_t code_ms() const;
};

// Decodes the body of a metric packet. Nothing when its records overrun; a record that cannot be understood goes to
// `unknown`.
std::optional<Action> read_action(std::string_view body);

// One line of a thread profile: "<monotonic ms> <thread> enter|leave action|function <name>".
struct ProfileEvent {
	std::string application;
	int64_t at_ms = 0; // monotonic clock
	int64_t thread = 0;
	bool enter = false;
	std::string kind, name;
};

// Decodes the body of a thread-profile packet. Nothing when it overruns or carries no well-formed line.
std::optional<ProfileEvent> read_profile_event(std::string_view body);

} // namespace quorbit
