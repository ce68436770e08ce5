// What /metrics answers: requests as counters, and the health of the daemon (docs/prometheus.md).
#pragma once

#include "base/config.h"
#include "export/metric_text.h"
#include "export/request_totals.h"

#include <functional>
#include <mutex>

namespace quorbit {

// What only the serving process can tell.
struct MetricSource {
	DaemonConfig config;
	std::function<bool()> daemon_answers;
	std::function<int64_t()> unwritten;      // packets that wait for the disk; none outside of the daemon, as the next
	std::function<int64_t()> otlp_sent = {}; // actions whose spans have been taken since the daemon began
};

class Metrics {
public:
	// Counters begin now. Any number of threads may ask.
	explicit Metrics(MetricSource source);

	// Asks the store, once a second at most. Throws std::runtime_error with a message for the operator.
	std::string text(MetricFormat format);

private:
	// Where the store is sent to.
	struct Target {
		const char *name;
		int64_t waits_since_ms = 0;
		bool failing = false;
		int64_t evicted = 0;
		std::optional<int64_t> refused = {}, sent = {}; // where they are known
	};
	std::vector<Target> targets() const;
	void update();
	void write_requests(MetricText &text) const;
	void write_actions(MetricText &text) const;
	void write_health(MetricText &text) const;
	void write_export(MetricText &text) const;

	const MetricSource source_;
	std::mutex mutex_;
	int64_t updated_ms_ = 0;
	RequestTotals totals_;
	std::map<std::string, int64_t> packets_seen_; // of each application
	int64_t packets_ = 0;
};

// The answer to a GET of /metrics: status, type and text.
struct MetricAnswer {
	int status;
	std::string type, text;
};
MetricAnswer answer_metrics(Metrics &metrics, std::string_view accept);

} // namespace quorbit
