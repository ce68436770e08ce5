// /metrics of the daemon itself, where applications.conf says so: on loopback, for a Prometheus of this host.
#pragma once

#include "export/metrics.h"

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <string>
#include <thread>

namespace quorbit {

class MetricsServer {
public:
	// Starts a thread, which waits for an address.
	explicit MetricsServer(MetricSource source);
	~MetricsServer();

	// Serves at "127.0.0.1:7181" from now on, nowhere with "". Where it cannot, that is logged once and tried again
	// every half minute. Any thread.
	void set_listen(const std::string &listen);
	// Stops serving. False when an answer still waits for a disk after so long: it would hold up the destructor.
	bool end(std::chrono::milliseconds most);

private:
	struct Serving;
	void stop();
	void run();
	void serve(const std::string &listen);

	const MetricSource source_;
	std::mutex mutex_;
	std::condition_variable changed_;
	std::string wanted_;
	bool stopping_ = false;

	// The thread's own.
	std::string listen_;
	bool told_ = false; // that it failed
	std::unique_ptr<Serving> serving_;
	std::promise<void> end_;
	const std::future<void> ended_ = end_.get_future();
	std::thread thread_;
};

} // namespace quorbit
