// Bodies of OTLP over HTTP (https://opentelemetry.io/docs/specs/otlp/): spans and metrics, as protobuf or as JSON.
#pragma once

#include "export/request_totals.h"
#include "export/spans.h"

#include <string>
#include <vector>

namespace quorbit {

enum class OtlpFormat { protobuf, json };

// The value of the Content-Type header.
const char *content_type_of(OtlpFormat format);
// Whether this quorbit was built with protobuf's definitions; else JSON is what it has.
bool has_otlp_protobuf();

// Who speaks of itself: the process that ran an application's actions.
struct OtlpResource {
	std::string application, host; // UTF-8
	int64_t process = 0;           // 0 for none
	auto operator<=>(const OtlpResource &) const = default;
};

struct ResourceSpans {
	OtlpResource resource;
	std::vector<Span> spans;
};

// An ExportTraceServiceRequest.
std::string trace_body(const std::vector<ResourceSpans> &all, OtlpFormat format);

// An action that stands for others, and its span.
struct Exemplar {
	std::string trace_id, span_id; // 16 and 8 bytes
	int64_t us = 0, at_ms = 0;
};

// Whether http.server.request.duration counts the action.
inline bool is_web_request(const RequestLabels &labels)
{
	return !labels.action.starts_with("BackgroundAction/");
}

// Histograms that began at start_ms.
struct OtlpMetrics {
	const RequestTotals &requests, &statements;
	std::map<RequestLabels, Exemplar> exemplars; // of requests
	std::string host;
	int64_t start_ms = 0, now_ms = 0;
};

// An ExportMetricsServiceRequest: http.server.request.duration by application and action, db.client.operation.duration
// by application, database, table and verb.
std::string metric_body(const OtlpMetrics &metrics, OtlpFormat format);

} // namespace quorbit
