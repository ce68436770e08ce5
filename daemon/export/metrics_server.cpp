// The server's life within the daemon.
#include "export/metrics_server.h"

#include "base/address.h"
#include "base/bounded_server.h"
#include "base/log.h"

#include <algorithm>
#include <atomic>
#include <strings.h>
#include <utility>

namespace quorbit {

namespace {

using httplib::Request;
using httplib::Response;

// A browser of this host may have been told that a name of somebody else's is ours.
bool is_for_us(const Request &request, const std::vector<std::string> &hosts)
{
	const std::string host = request.get_header_value("Host");
	return request.get_header_value_count("Host") == 1 &&
		std::any_of(hosts.begin(), hosts.end(),
			[&host](const std::string &ours) { return strcasecmp(ours.c_str(), host.c_str()) == 0; });
}

MetricAnswer answer(Metrics &metrics, const Request &request, const std::vector<std::string> &hosts)
{
	if (!is_for_us(request, hosts)) return {421, "text/plain", "this name is not served here\n"};
	if (request.path != "/metrics") return {404, "text/plain", "there is /metrics only\n"};
	if (request.method != "GET" && request.method != "HEAD") return {405, "text/plain", "GET and HEAD only\n"};
	return answer_metrics(metrics, request.get_header_value("Accept"));
}

} // namespace

struct MetricsServer::Serving {
	Serving(const MetricSource &source, const ListenAddress &address)
		: metrics(source), hosts(allowed_hosts(address, {}))
	{
		server.set_pre_routing_handler([this](const Request &request, Response &response) {
			const MetricAnswer found = answer(metrics, request, hosts);
			response.status = found.status;
			response.set_content(found.text, found.type);
			return httplib::Server::HandlerResponse::Handled;
		});
		if (!server.bind_to_port(address.host, address.port))
			throw std::runtime_error("cannot listen on " + address.origin());
		thread = std::thread([this] {
			server.listen_after_bind();
			ended = true;
		});
		while (!server.is_running() && !ended) std::this_thread::yield(); // only then it can be stopped
	}

	~Serving()
	{
		server.stop();
		thread.join();
	}

	Metrics metrics;
	const std::vector<std::string> hosts;
	BoundedServer server;
	std::atomic<bool> ended = false;
	std::thread thread;
};

MetricsServer::MetricsServer(MetricSource source) : source_(std::move(source))
{
	thread_ = std::thread([this] { run(); });
}

MetricsServer::~MetricsServer()
{
	stop();
	thread_.join();
}

void MetricsServer::stop()
{
	{
		std::lock_guard lock(mutex_);
		stopping_ = true;
	}
	changed_.notify_one();
}

void MetricsServer::set_listen(const std::string &listen)
{
	{
		std::lock_guard lock(mutex_);
		if (wanted_ == listen) return;
		wanted_ = listen;
	}
	changed_.notify_one();
}

bool MetricsServer::end(std::chrono::milliseconds most)
{
	stop();
	return ended_.wait_for(most) == std::future_status::ready;
}

void MetricsServer::run()
{
	constexpr auto pause = std::chrono::seconds(30);
	std::unique_lock lock(mutex_);
	while (!stopping_) {
		if (listen_ != wanted_ || (!serving_ && !wanted_.empty())) {
			told_ = told_ && listen_ == wanted_;
			listen_ = wanted_;
			lock.unlock();
			serve(listen_);
			lock.lock();
		}
		changed_.wait_for(lock, pause, [this] { return stopping_ || listen_ != wanted_; });
	}
	lock.unlock();
	serving_.reset();
	end_.set_value();
}

void MetricsServer::serve(const std::string &listen)
{
	serving_.reset();
	if (listen.empty()) return;
	try {
		serving_ = std::make_unique<Serving>(source_, parse_listen(listen));
		log_message(LogLevel::info, "metrics at http://" + listen + "/metrics");
		told_ = false;
	} catch (const std::exception &failure) {
		if (!std::exchange(told_, true)) log_message(LogLevel::warning, std::string("no metrics: ") + failure.what());
	}
}

} // namespace quorbit
