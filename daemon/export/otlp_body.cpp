// Plain structs as messages, in the one format or the other.
#include "export/otlp_body.h"

#include "base/json_text.h"
#include "base/version.h"

#include <map>
#include <nlohmann/json.hpp>

#if QUORBIT_OTLP_MESSAGES
#include <opentelemetry/proto/collector/metrics/v1/metrics_service.pb.h>
#include <opentelemetry/proto/collector/trace/v1/trace_service.pb.h>
#endif

namespace quorbit {

namespace {

constexpr const char *schema = "https://opentelemetry.io/schemas/1.26.0";

std::string hex(std::string_view bytes)
{
	constexpr const char *digits = "0123456789abcdef";
	std::string out;
	for (unsigned char c : bytes) out.append(1, digits[c >> 4]).append(1, digits[c & 15]);
	return out;
}

std::vector<SpanAttribute> attributes_of(const OtlpResource &resource)
{
	std::vector<SpanAttribute> found = {{"service.name", resource.application}, {"host.name", resource.host}};
	if (resource.process) found.push_back({"process.pid", "", resource.process});
	found.push_back({"telemetry.sdk.name", "quorbit"});
	found.push_back({"telemetry.sdk.language", "php"});
	found.push_back({"telemetry.sdk.version", product_version});
	return found;
}

struct DurationPoint {
	std::vector<SpanAttribute> attributes;
	const RequestCounts &counts;
	const Exemplar *exemplar = nullptr;
};

struct DurationMetric {
	std::span<const int64_t> bounds_us;
	std::vector<DurationPoint> points = {};
};

// By their names.
using MetricsOfApplication = std::map<std::string, DurationMetric>;

constexpr const char *request_metric = "http.server.request.duration";
constexpr const char *statement_metric = "db.client.operation.duration";

std::map<std::string, MetricsOfApplication> by_application(const OtlpMetrics &metrics)
{
	std::map<std::string, MetricsOfApplication> found;
	for (const auto &[labels, counts] : metrics.requests.actions()) {
		if (!is_web_request(labels)) continue;
		const auto exemplar = metrics.exemplars.find(labels);
		found[labels.application]
			.try_emplace(request_metric, DurationMetric{duration_bounds_us})
			.first->second.points.push_back({{{"quorbit.action", labels.action}}, counts,
				exemplar == metrics.exemplars.end() ? nullptr : &exemplar->second});
	}
	for (const auto &[labels, counts] : metrics.statements.actions()) {
		found[labels.application]
			.try_emplace(statement_metric, DurationMetric{statement_bounds_us})
			.first->second.points.push_back({statement_attributes(labels.vendor, labels.table, labels.verb), counts});
	}
	return found;
}

double seconds(int64_t us)
{
	return static_cast<double>(us) / 1e6;
}

// --- JSON: ids in hexadecimal, 64-bit integers as texts, enumerations as numbers

Json attributes_json(const std::vector<SpanAttribute> &attributes)
{
	Json list = Json::array();
	for (const SpanAttribute &attribute : attributes) {
		Json value = attribute.number ? Json{{"intValue", std::to_string(*attribute.number)}}
									  : Json{{"stringValue", attribute.text}};
		list.push_back({{"key", attribute.key}, {"value", std::move(value)}});
	}
	return list;
}

Json span_json(const Span &span)
{
	Json object = {{"traceId", hex(span.trace_id)}, {"spanId", hex(span.id)}};
	if (!span.parent.empty()) object["parentSpanId"] = hex(span.parent);
	object["name"] = span.name;
	object["kind"] = static_cast<int>(span.kind);
	object["startTimeUnixNano"] = std::to_string(span.start_ns);
	object["endTimeUnixNano"] = std::to_string(span.end_ns);
	object["attributes"] = attributes_json(span.attributes);
	for (const SpanEvent &event : span.events)
		object["events"].push_back({{"timeUnixNano", std::to_string(event.at_ns)}, {"name", event.name},
			{"attributes", attributes_json(event.attributes)}});
	if (span.failed) object["status"] = {{"code", 2}};
	return object;
}

Json scope_json()
{
	return {{"name", "quorbit"}, {"version", product_version}};
}

std::string trace_json(const std::vector<ResourceSpans> &all)
{
	Json list = Json::array();
	for (const ResourceSpans &part : all) {
		Json spans = Json::array();
		for (const Span &span : part.spans) spans.push_back(span_json(span));
		Json scope = {{"scope", scope_json()}, {"spans", std::move(spans)}};
		list.push_back({{"resource", {{"attributes", attributes_json(attributes_of(part.resource))}}},
			{"scopeSpans", Json::array({std::move(scope)})}, {"schemaUrl", schema}});
	}
	return Json{{"resourceSpans", std::move(list)}}.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string nanoseconds(int64_t ms)
{
	return std::to_string(ms * 1000000);
}

Json point_json(const DurationPoint &point, std::span<const int64_t> bounds_us, const OtlpMetrics &metrics)
{
	Json bounds = Json::array(), counts = Json::array();
	for (size_t i = 0; i <= bounds_us.size(); i++) {
		if (i < bounds_us.size()) bounds.push_back(seconds(bounds_us[i]));
		counts.push_back(std::to_string(point.counts.durations[i]));
	}
	Json object = {{"attributes", attributes_json(point.attributes)},
		{"startTimeUnixNano", nanoseconds(metrics.start_ms)}, {"timeUnixNano", nanoseconds(metrics.now_ms)},
		{"count", std::to_string(point.counts.count)}, {"sum", seconds(point.counts.total_us)},
		{"bucketCounts", std::move(counts)}, {"explicitBounds", std::move(bounds)}};
	if (const Exemplar *exemplar = point.exemplar)
		object["exemplars"] =
			Json::array({{{"timeUnixNano", nanoseconds(exemplar->at_ms)}, {"asDouble", seconds(exemplar->us)},
				{"spanId", hex(exemplar->span_id)}, {"traceId", hex(exemplar->trace_id)}}});
	return object;
}

constexpr int cumulative = 2;

std::string metric_json(const OtlpMetrics &metrics)
{
	Json list = Json::array();
	for (const auto &[application, of_it] : by_application(metrics)) {
		Json found = Json::array();
		for (const auto &[name, metric] : of_it) {
			Json points = Json::array();
			for (const DurationPoint &point : metric.points)
				points.push_back(point_json(point, metric.bounds_us, metrics));
			found.push_back({{"name", name}, {"unit", "s"},
				{"histogram", {{"dataPoints", std::move(points)}, {"aggregationTemporality", cumulative}}}});
		}
		Json scope = {{"scope", scope_json()}, {"metrics", std::move(found)}};
		list.push_back({{"resource", {{"attributes", attributes_json(attributes_of({application, metrics.host, 0}))}}},
			{"scopeMetrics", Json::array({std::move(scope)})}, {"schemaUrl", schema}});
	}
	return Json{{"resourceMetrics", std::move(list)}}.dump(-1, ' ', true, Json::error_handler_t::replace);
}

#if QUORBIT_OTLP_MESSAGES
// --- protobuf

namespace proto = opentelemetry::proto;

template <typename Message>
void add_attributes(Message &message, const std::vector<SpanAttribute> &attributes)
{
	for (const SpanAttribute &attribute : attributes) {
		auto *added = message.add_attributes();
		added->set_key(attribute.key);
		if (attribute.number)
			added->mutable_value()->set_int_value(*attribute.number);
		else
			added->mutable_value()->set_string_value(attribute.text);
	}
}

template <typename Scope>
Scope *with_scope(Scope *scope)
{
	scope->mutable_scope()->set_name("quorbit");
	scope->mutable_scope()->set_version(product_version);
	return scope;
}

void fill(proto::trace::v1::Span &message, const Span &span)
{
	message.set_trace_id(span.trace_id);
	message.set_span_id(span.id);
	message.set_parent_span_id(span.parent);
	message.set_name(span.name);
	message.set_kind(static_cast<proto::trace::v1::Span_SpanKind>(span.kind));
	message.set_start_time_unix_nano(static_cast<uint64_t>(span.start_ns));
	message.set_end_time_unix_nano(static_cast<uint64_t>(span.end_ns));
	add_attributes(message, span.attributes);
	for (const SpanEvent &event : span.events) {
		auto *added = message.add_events();
		added->set_time_unix_nano(static_cast<uint64_t>(event.at_ns));
		added->set_name(event.name);
		add_attributes(*added, event.attributes);
	}
	if (span.failed) message.mutable_status()->set_code(proto::trace::v1::Status_StatusCode_STATUS_CODE_ERROR);
}

std::string trace_protobuf(const std::vector<ResourceSpans> &all)
{
	proto::collector::trace::v1::ExportTraceServiceRequest request;
	for (const ResourceSpans &part : all) {
		auto *resource = request.add_resource_spans();
		add_attributes(*resource->mutable_resource(), attributes_of(part.resource));
		resource->set_schema_url(schema);
		auto *scope = with_scope(resource->add_scope_spans());
		for (const Span &span : part.spans) fill(*scope->add_spans(), span);
	}
	return request.SerializeAsString();
}

void fill(proto::metrics::v1::HistogramDataPoint &message, const DurationPoint &point,
	std::span<const int64_t> bounds_us, const OtlpMetrics &metrics)
{
	add_attributes(message, point.attributes);
	message.set_start_time_unix_nano(static_cast<uint64_t>(metrics.start_ms) * 1000000);
	message.set_time_unix_nano(static_cast<uint64_t>(metrics.now_ms) * 1000000);
	message.set_count(static_cast<uint64_t>(point.counts.count));
	message.set_sum(seconds(point.counts.total_us));
	for (size_t i = 0; i <= bounds_us.size(); i++) {
		if (i < bounds_us.size()) message.add_explicit_bounds(seconds(bounds_us[i]));
		message.add_bucket_counts(static_cast<uint64_t>(point.counts.durations[i]));
	}
	if (const Exemplar *exemplar = point.exemplar) {
		auto *added = message.add_exemplars();
		added->set_time_unix_nano(static_cast<uint64_t>(exemplar->at_ms) * 1000000);
		added->set_as_double(seconds(exemplar->us));
		added->set_span_id(exemplar->span_id);
		added->set_trace_id(exemplar->trace_id);
	}
}

std::string metric_protobuf(const OtlpMetrics &metrics)
{
	proto::collector::metrics::v1::ExportMetricsServiceRequest request;
	for (const auto &[application, of_it] : by_application(metrics)) {
		auto *resource = request.add_resource_metrics();
		add_attributes(*resource->mutable_resource(), attributes_of({application, metrics.host, 0}));
		resource->set_schema_url(schema);
		auto *scope = with_scope(resource->add_scope_metrics());
		for (const auto &[name, metric] : of_it) {
			auto *added = scope->add_metrics();
			added->set_name(name);
			added->set_unit("s");
			auto *histogram = added->mutable_histogram();
			histogram->set_aggregation_temporality(static_cast<proto::metrics::v1::AggregationTemporality>(cumulative));
			for (const DurationPoint &point : metric.points)
				fill(*histogram->add_data_points(), point, metric.bounds_us, metrics);
		}
	}
	return request.SerializeAsString();
}
#endif

} // namespace

const char *content_type_of(OtlpFormat format)
{
	return format == OtlpFormat::json ? "application/json" : "application/x-protobuf";
}

#if QUORBIT_OTLP_MESSAGES
bool has_otlp_protobuf()
{
	return true;
}

std::string trace_body(const std::vector<ResourceSpans> &all, OtlpFormat format)
{
	return format == OtlpFormat::json ? trace_json(all) : trace_protobuf(all);
}

std::string metric_body(const OtlpMetrics &metrics, OtlpFormat format)
{
	return format == OtlpFormat::json ? metric_json(metrics) : metric_protobuf(metrics);
}
#else
bool has_otlp_protobuf()
{
	return false;
}

std::string trace_body(const std::vector<ResourceSpans> &all, OtlpFormat)
{
	return trace_json(all);
}

std::string metric_body(const OtlpMetrics &metrics, OtlpFormat)
{
	return metric_json(metrics);
}
#endif

} // namespace quorbit
