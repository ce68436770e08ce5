// Actions as spans, in the words of OpenTelemetry's stable semantic conventions
// (https://opentelemetry.io/docs/specs/semconv/): one for the action, and of one with a trace one for each of its
// calls.
#pragma once

#include "store/reader.h"

#include <optional>
#include <string>
#include <vector>

namespace quorbit {

// As the protocol numbers them.
enum class SpanKind { internal = 1, server = 2, client = 3 };

struct SpanAttribute {
	const char *key;
	std::string text = {};              // UTF-8
	std::optional<int64_t> number = {}; // in its place
};

struct SpanEvent {
	const char *name;
	int64_t at_ns = 0; // since 1970
	std::vector<SpanAttribute> attributes;
};

struct Span {
	std::string trace_id;   // 16 bytes
	std::string id, parent; // 8 bytes; the parent may be ""
	std::string name;       // UTF-8
	SpanKind kind = SpanKind::internal;
	int64_t start_ns = 0, end_ns = 0; // since 1970
	std::vector<SpanAttribute> attributes;
	std::vector<SpanEvent> events;
	bool failed = false;
};

struct SpanOptions {
	bool functions = true;   // spans of calls that are neither statements nor go out
	int64_t store = 0;       // identity of the store, which tells actions without a transaction apart
	std::string caller = {}; // id of the span that led to this action, as far as the store knows; "" for none
	size_t most = 10000;     // of an action
};

// The id of the span of the call that led to the action with this tracer id, as its caller's spans have it; "" for
// none.
std::string caller_span(const Action &caller, const std::string &tracer_id);

// Of a statement: its database, table and verb, each as far as known.
std::vector<SpanAttribute> statement_attributes(std::string_view vendor, std::string_view table, std::string_view verb);

// The action's own span first. The ids follow from the action's: sent twice they are the same. An application that
// calls another one and this other one agree on the trace's, and on that of the call.
std::vector<Span> spans_of(const StoredAction &stored, const SpanOptions &options);

} // namespace quorbit
