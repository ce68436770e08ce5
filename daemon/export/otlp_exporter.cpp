// What is sent when, and what becomes of what cannot be.
#include "export/otlp_exporter.h"

#include "base/clock.h"
#include "base/number.h"
#include "base/text.h"
#include "facts/trace.h"
#include "store/open_reader.h"
#include "store/sqlite_sums.h"

#include <algorithm>
#include <map>
#include <utility>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

constexpr auto metrics_every = 60s;
constexpr auto first_pause = 1s, longest_pause = 60s;
constexpr int64_t settle = 2; // so many times the pause between batches the caller of an action is waited for
constexpr int64_t most_actions = 200;
constexpr size_t most_spans = 20000; // of a body, about

// The span of the call of another action in the store that led to this one; "" for none.
std::string caller_of(Reader &reader, const StoredAction &stored)
{
	const Action &own = stored.action;
	std::string found;
	if (own.transaction_id.empty() || own.tracer_id.empty() ||
		(own.trace_context && !own.trace_context->parent.empty()))
		return found;
	reader.each_related({stored.row.id, own.transaction_id, {}}, [&](const StoredAction &other) {
		if (found.empty()) found = caller_span(other.action, own.tracer_id);
	});
	return found;
}

} // namespace

OtlpExporter::OtlpExporter(DaemonConfig config, StoreWriter &writer)
	: config_(std::move(config)), writer_(writer), thread_([this] { run(); })
{
}

void OtlpExporter::run()
{
	while (wait_until_due()) {
		try {
			work();
			if (!std::exchange(state_.failure, "").empty())
				log_message(LogLevel::info, "sending spans to " + settings_.url + " works again");
			pause_ = 0s;
			due_ = settings_.url.empty() ? Clock::time_point::max()
										 : Clock::now() + std::chrono::seconds(settings_.seconds);
			keep();
		} catch (const OtlpError &failure) {
			failed(failure.what(), failure.pause);
		} catch (const std::exception &failure) {
			failed(failure.what(), 0s);
		}
	}
}

// False when the thread is to end.
bool OtlpExporter::wait_until_due()
{
	const OtlpSettings before = settings_;
	const bool goes_on = thread_.wait_until(due_, settings_);
	if (settings_ != before) {
		client_.reset();
		pause_ = 0s;
	}
	return goes_on;
}

void OtlpExporter::work()
{
	if (settings_.url.empty()) return;
	std::unique_ptr<Reader> reader;
	if (has_store(config_)) reader = open_reader(config_);
	if (started_ms_ == 0) { // what comes from now on counts
		for (RequestTotals *totals : {&totals_, &statements_}) totals->update(reader.get(), wall_clock_ms());
		started_ms_ = wall_clock_ms();
	}
	if (!reader) {
		began_without_store_ = true;
		return;
	}
	if (!client_) {
		const OtlpFormat format = settings_.format == "json" ? OtlpFormat::json : OtlpFormat::protobuf;
		std::string url = settings_.url;
		while (url.ends_with('/')) url.pop_back();
		client_ = std::make_unique<OtlpClient>(
			url, otlp_headers(settings_.headers), has_otlp_protobuf() ? format : OtlpFormat::json, &thread_.stopping());
		host_ = settings_.host_name.empty() ? this_host() : settings_.host_name;
	}
	follow_store(*reader);
	while (!thread_.stopping() && send_actions(*reader)) keep();
	if (Clock::now() >= metrics_due_) send_metrics(*reader);
}

// Whoever begins to send begins with what comes next.
void OtlpExporter::follow_store(Reader &reader)
{
	const StorePosition position = reader.position();
	if (position.identity == identity_ && state_.url == settings_.url) return;
	Database database(config_.store_file(), Database::Mode::read_only);
	state_ = kept_ = read_otlp_state(database);
	const bool new_store = began_without_store_ || (identity_ && position.identity != identity_);
	identity_ = position.identity;
	if (state_.url == settings_.url) return;
	state_ = {settings_.url};
	if (!new_store) state_.action_id = position.last_id;
}

// False when there is nothing more to send now.
bool OtlpExporter::send_actions(Reader &reader)
{
	ActionQuestion question;
	question.filter.after_id = state_.action_id;
	question.filter.range.until_ms = wall_clock_ms() - settle * 1000 * settings_.seconds;
	question.order = ActionOrder::oldest;
	question.most = most_actions;
	const std::vector<ActionRow> rows = reader.actions(question);
	std::map<OtlpResource, std::vector<Span>> spans;
	OtlpState sent = state_;
	size_t waiting = 0;
	int64_t actions = 0;
	for (const ActionRow &row : rows) {
		if (waiting >= most_spans) break;
		sent.evicted += std::max(row.id - sent.action_id - 1, int64_t{0});
		sent.action_id = row.id;
		const auto stored = reader.action(row.id);
		if (!stored) continue;
		SpanOptions options{settings_.functions != "no", identity_, caller_of(reader, *stored)};
		std::vector<Span> of_it = spans_of(*stored, options);
		if (!is_wanted(stored->action, of_it[0].trace_id)) continue;
		waiting += of_it.size();
		actions++;
		auto &all = spans[{text_of_bytes(row.application), host_, row.process}];
		std::move(of_it.begin(), of_it.end(), std::back_inserter(all));
	}
	std::vector<ResourceSpans> body;
	for (auto &[resource, of_it] : spans) body.push_back({resource, std::move(of_it)});
	try {
		const OtlpFormat format = settings_.format == "json" ? OtlpFormat::json : OtlpFormat::protobuf;
		if (!body.empty()) client_->send("/v1/traces", trace_body(body, format));
		if (!body.empty()) sent.sent_ms = wall_clock_ms();
		actions_sent_ += actions;
	} catch (const OtlpError &failure) {
		if (failure.may_be_tried) throw;
		sent.refused += actions;
		log_message(LogLevel::warning,
			settings_.url + " refuses " + std::to_string(actions) + " actions for good: " + failure.what());
	}
	state_ = sent;
	return static_cast<int64_t>(rows.size()) == most_actions || waiting >= most_spans;
}

// Those of a transaction are sent or left out together.
bool OtlpExporter::is_wanted(const Action &action, const std::string &trace_id) const
{
	if (settings_.send == "traced") return action.error || !action.trace.empty();
	int64_t one_in = 1;
	if (settings_.send.starts_with("1/")) parse_number(std::string_view(settings_.send).substr(2), one_in);
	uint64_t chance = 0;
	for (unsigned char c : trace_id.substr(0, 8)) chance = chance << 8 | c;
	return chance % static_cast<uint64_t>(std::max(one_in, int64_t{1})) == 0;
}

// The slowest action of each of the last minutes' histograms, where its span is sent as well.
std::map<RequestLabels, Exemplar> OtlpExporter::exemplars(Reader &reader) const
{
	std::map<RequestLabels, Exemplar> found;
	for (const auto &[labels, slowest] : totals_.slowest()) {
		if (!is_web_request(labels)) continue;
		const auto stored = slowest.id ? reader.action(slowest.id) : std::nullopt;
		if (!stored) continue;
		const std::vector<Span> spans = spans_of(*stored, {false, identity_, "", 1});
		if (is_wanted(stored->action, spans[0].trace_id))
			found[labels] = {spans[0].trace_id, spans[0].id, slowest.us, stored->row.received_ms};
	}
	return found;
}

// Counters: what a receiver does not get now is in the next.
void OtlpExporter::send_metrics(Reader &reader)
{
	for (RequestTotals *totals : {&totals_, &statements_}) totals->update(&reader, wall_clock_ms());
	if (totals_.actions().empty()) return;
	metrics_due_ = Clock::now() + metrics_every;
	const OtlpFormat format = settings_.format == "json" ? OtlpFormat::json : OtlpFormat::protobuf;
	try {
		const OtlpMetrics metrics{totals_, statements_, exemplars(reader), host_, started_ms_, wall_clock_ms()};
		client_->send("/v1/metrics", metric_body(metrics, format));
	} catch (const OtlpError &failure) {
		if (failure.may_be_tried) {
			metrics_due_ = {};
			throw;
		}
		log_message(LogLevel::warning, settings_.url + " refuses metrics: " + failure.what());
	}
}

void OtlpExporter::failed(const std::string &why, std::chrono::seconds pause)
{
	if (thread_.stopping()) return;
	if (state_.failure.empty()) log_message(LogLevel::warning, "no spans can be sent to " + settings_.url + ": " + why);
	state_.failure = why;
	keep();
	pause_ = std::clamp(2 * pause_, std::chrono::seconds(first_pause), std::chrono::seconds(longest_pause));
	due_ = Clock::now() + std::max(pause_, pause);
}

void OtlpExporter::keep()
{
	if (state_ == kept_ || identity_ == 0) return;
	writer_.put(state_);
	kept_ = state_;
}

} // namespace quorbit
