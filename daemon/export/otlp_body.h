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

// An ExportMetricsServiceRequest: http.server.request.duration by application and action, as histograms that began at
// start_ms.
std::string metric_body(
	const RequestTotals &totals, const std::string &host, int64_t start_ms, int64_t now_ms, OtlpFormat format);

} // namespace quorbit
