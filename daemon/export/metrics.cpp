// The families, in the order in which they are written.
#include "export/metrics.h"

#include "base/files.h"
#include "base/text.h"
#include "base/version.h"
#include "facts/applications.h"
#include "store/export_state.h"
#include "store/open_reader.h"
#include "store/otlp_state.h"

#include <algorithm>
#include <sys/stat.h>

namespace quorbit {

namespace {

constexpr int64_t fresh_ms = 1000; // so long the same is answered again

struct Layer {
	const char *name;
	int64_t RequestCounts::*field;
};
constexpr Layer layers[] = {
	{"database", &RequestCounts::database_us},
	{"cache", &RequestCounts::cache_us},
	{"external", &RequestCounts::external_us},
	{"code", &RequestCounts::code_us},
};

using Counts = std::map<RequestLabels, RequestCounts>;

MetricLabels labels_of(const RequestLabels &labels)
{
	MetricLabels shown = {{"application", labels.application}};
	if (!labels.action.empty()) shown.emplace_back("action", labels.action);
	return shown;
}

void write_durations(MetricText &text, const Counts &all)
{
	for (const auto &[labels, counts] : all)
		text.histogram(labels_of(labels), duration_bounds_us.data(), counts.durations.data(), duration_bounds_us.size(),
			counts.total_us);
}

void write_layers(MetricText &text, const Counts &all)
{
	for (const auto &[labels, counts] : all) {
		MetricLabels shown = labels_of(labels);
		shown.emplace_back("layer", "");
		for (const Layer &layer : layers) {
			shown.back().second = layer.name;
			text.seconds(shown, counts.*layer.field);
		}
	}
}

int64_t bytes_of(const std::string &path)
{
	struct stat status;
	return stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

} // namespace

Metrics::Metrics(MetricSource source) : source_(std::move(source))
{
	try {
		update();
	} catch (const std::exception &) { // whoever asks is told
	}
}

std::string Metrics::text(MetricFormat format)
{
	std::lock_guard lock(mutex_);
	if (std::abs(wall_clock_ms() - updated_ms_) >= fresh_ms) update();
	MetricText text(format);
	write_requests(text);
	write_actions(text);
	write_health(text);
	write_export(text);
	return text.end();
}

void Metrics::update()
{
	const int64_t now_ms = wall_clock_ms();
	std::unique_ptr<Reader> reader;
	if (has_store(source_.config)) reader = open_reader(source_.config);
	totals_.update(reader.get(), now_ms);
	const bool begins = updated_ms_ == 0;
	if (reader) {
		for (const ApplicationRow &row : reader->applications()) {
			int64_t &seen = packets_seen_[row.name];
			if (!begins) packets_ += std::max(row.packets - seen, int64_t{0});
			seen = row.packets;
		}
	}
	updated_ms_ = now_ms;
}

void Metrics::write_requests(MetricText &text) const
{
	const Counts &all = totals_.applications();
	text.family("quorbit_requests", MetricType::counter, "Requests, command lines and jobs included.");
	for (const auto &[labels, counts] : all) text.sample(labels_of(labels), counts.count);
	text.family("quorbit_request_errors", MetricType::counter, "Requests that had an error.");
	for (const auto &[labels, counts] : all) text.sample(labels_of(labels), counts.errors);
	text.family("quorbit_request_duration_seconds", MetricType::histogram, "Durations of requests.");
	write_durations(text, all);
	text.family("quorbit_request_layer_seconds", MetricType::counter, "Time of requests by where it went.");
	write_layers(text, all);
	text.family("quorbit_request_cpu_seconds", MetricType::counter, "Processor time of requests.");
	for (const auto &[labels, counts] : all) text.seconds(labels_of(labels), counts.cpu_us);
}

void Metrics::write_actions(MetricText &text) const
{
	const Counts &all = totals_.actions();
	text.family("quorbit_action_errors", MetricType::counter, "Requests that had an error, by action.");
	for (const auto &[labels, counts] : all) text.sample(labels_of(labels), counts.errors);
	text.family("quorbit_action_duration_seconds", MetricType::histogram, "Durations of requests, by action.");
	write_durations(text, all);
	text.family("quorbit_action_layer_seconds", MetricType::counter, "Time of requests by where it went, by action.");
	write_layers(text, all);
}

void Metrics::write_health(MetricText &text) const
{
	text.family("quorbit_build_info", MetricType::gauge, "Which quorbit answers; always 1.");
	text.sample({{"version", product_version}}, 1);
	text.family("quorbit_daemon_up", MetricType::gauge, "Whether the daemon takes connections.");
	text.sample({}, source_.daemon_answers() ? 1 : 0);
	text.family("quorbit_packets", MetricType::counter, "Packets that were stored.");
	text.sample({}, packets_);
	text.family("quorbit_packets_dropped", MetricType::counter, "Packets that were not stored, or not in full.");
	for (const auto &[reason, count] : totals_.dropped()) text.sample({{"reason", reason}}, count);
	if (source_.unwritten) {
		text.family("quorbit_backlog_packets", MetricType::gauge, "Packets and queries that wait for the disk.");
		text.sample({}, source_.unwritten());
	}
	const std::string store = source_.config.store_file();
	text.family("quorbit_store_bytes", MetricType::gauge, "Size of the store with its log.");
	text.sample({}, bytes_of(store) + bytes_of(store + "-wal"));
}

// Those that applications.conf names now: what was sent elsewhere once waits for nobody.
std::vector<Metrics::Target> Metrics::targets() const
{
	std::vector<Target> found;
	const std::string file = source_.config.applications_file();
	if (!has_store(source_.config) || !inode_of(file)) return found;
	const Applications settings = parse_applications(read_file(file, true));
	if (!settings.store_url.empty()) {
		const ExportProgress progress = export_progress(source_.config.store_file());
		const ExportState &state = progress.state;
		if (!state.url.empty())
			found.push_back({"clickhouse", progress.waits_since_ms, !state.failure.empty(), state.evicted});
	}
	if (!settings.otlp_url.empty()) {
		const OtlpProgress progress = otlp_progress(source_.config.store_file());
		const OtlpState &state = progress.state;
		const std::optional<int64_t> sent = source_.otlp_sent ? std::optional(source_.otlp_sent()) : std::nullopt;
		if (!state.url.empty())
			found.push_back(
				{"otlp", progress.waits_since_ms, !state.failure.empty(), state.evicted, state.refused, sent});
	}
	return found;
}

void Metrics::write_export(MetricText &text) const
{
	const std::vector<Target> all = targets();
	if (all.empty()) return;
	const auto labels_of = [](const Target &target) { return MetricLabels{{"target", target.name}}; };
	text.family("quorbit_export_behind_seconds", MetricType::gauge, "For how long what is to be sent elsewhere waits.");
	for (const Target &target : all) {
		const int64_t since_ms = target.waits_since_ms;
		text.seconds(labels_of(target), since_ms ? std::max(updated_ms_ - since_ms, int64_t{0}) * 1000 : 0);
	}
	text.family("quorbit_export_failing", MetricType::gauge, "Whether the last attempt to send it failed.");
	for (const Target &target : all) text.sample(labels_of(target), target.failing ? 1 : 0);
	text.family("quorbit_export_evicted_actions", MetricType::counter, "Actions that made room for others unsent.");
	for (const Target &target : all) text.sample(labels_of(target), target.evicted);
	const struct {
		const char *name, *help;
		std::optional<int64_t> Target::*field;
	} rows[] = {{"quorbit_export_refused_actions", "Actions that the receiver refused for good.", &Target::refused},
		{"quorbit_export_sent_actions", "Actions that the receiver has taken.", &Target::sent}};
	for (const auto &row : rows) {
		if (std::none_of(all.begin(), all.end(), [&](const Target &target) { return (target.*row.field).has_value(); }))
			continue;
		text.family(row.name, MetricType::counter, row.help);
		for (const Target &target : all) {
			if (target.*row.field) text.sample(labels_of(target), *(target.*row.field));
		}
	}
}

MetricAnswer answer_metrics(Metrics &metrics, std::string_view accept)
{
	try {
		const MetricFormat format = metric_format_for(accept);
		return {200, content_type_of(format), metrics.text(format)};
	} catch (const std::exception &failure) {
		return {503, "text/plain", failure.what() + std::string("\n")};
	}
}

} // namespace quorbit
