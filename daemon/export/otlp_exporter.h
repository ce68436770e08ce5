// The thread that sends spans of what is stored, and metrics, to a receiver of OTLP. As with the store of a fleet
// (export/exporter.h) the store is its queue, and nothing that agents wait for waits for it.
#pragma once

#include "base/config.h"
#include "export/otlp_client.h"
#include "export/sending_thread.h"
#include "store/store_writer.h"

#include <memory>

namespace quorbit {

// As the operator gives it (docs/otlp.md).
struct OtlpSettings {
	std::string url; // "" for nowhere
	std::string headers, format, send, functions, host_name;
	int64_t seconds = 0; // between batches

	bool operator==(const OtlpSettings &) const = default;
};

class OtlpExporter {
public:
	// Starts the thread, which waits for settings. `writer` must outlive this object.
	OtlpExporter(DaemonConfig config, StoreWriter &writer);

	// Any thread.
	void set_settings(const OtlpSettings &settings) { thread_.set_settings(settings); }
	// Ends the thread. False when it has not ended after so long: a disk holds it up, and would hold up the destructor.
	bool end(std::chrono::milliseconds most) { return thread_.end(most); }
	// How many actions the receiver has taken since this object was made. Any thread.
	int64_t sent() const { return actions_sent_; }

private:
	using Clock = SendingThread<OtlpSettings>::Clock;

	void run();
	bool wait_until_due();
	void work();
	void follow_store(Reader &reader);
	bool send_actions(Reader &reader);
	void send_metrics(Reader &reader);
	std::map<RequestLabels, Exemplar> exemplars(Reader &reader) const;
	bool is_wanted(const Action &action, const std::string &trace_id) const;
	void failed(const std::string &why, std::chrono::seconds pause);
	void keep();

	const DaemonConfig config_;
	StoreWriter &writer_;
	std::atomic<int64_t> actions_sent_ = 0;

	// The thread's own.
	OtlpSettings settings_;
	std::unique_ptr<OtlpClient> client_;
	std::string host_;
	int64_t identity_ = 0; // of the store
	bool began_without_store_ = false;
	OtlpState state_, kept_;
	RequestTotals totals_, statements_{{SumKey::query, statement_bounds_us}};
	int64_t started_ms_ = 0; // of the totals
	Clock::time_point due_ = Clock::time_point::max(), metrics_due_{};
	std::chrono::seconds pause_{}; // after a failure
	SendingThread<OtlpSettings> thread_;
};

} // namespace quorbit
