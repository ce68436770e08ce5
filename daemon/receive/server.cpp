// The event loop: accepting, receiving, answering.
#include "receive/server.h"

#include "base/text.h"
#include "base/clock.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr size_t scratch_bytes = size_t{256} << 10;
constexpr size_t budget_bytes = size_t{256} << 20;
// An agent sends a packet in one call with a time-out of 100 ms: one that is still incomplete after this never will be
// complete.
constexpr int64_t stall_seconds = 10;
constexpr int sweep_ms = 1000;
constexpr int keep_seconds = 5; // between looks at the socket's name

[[noreturn]] void throw_errno(const char *what)
{
	throw std::system_error(errno, std::generic_category(), what);
}

int64_t process_of_peer(int descriptor)
{
	struct ucred peer = {};
	socklen_t length = sizeof peer;
	return getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

// What `quorbit status` shows of the settings given: one line each, the account's secret left out.
std::string given_lines(const Settings &settings)
{
	std::string lines;
	for (const auto &[key, value] : settings) {
		if (key == "zqs.details" && value == "1") continue; // asked for by itself
		bool secret = key == "zqs.vantorIdSecret" && !value.empty();
		lines += key + "=" + (secret ? "(set)" : cut(printable(value), 200)) + "\n";
	}
	return lines;
}

StoreBounds bounds_of(const Applications &applications)
{
	return {.action_bytes = applications.store_mb << 20, .event_bytes = applications.profile_mb << 20};
}

} // namespace

Server::Server(
	std::unique_ptr<Listener> listener, std::string applications_file, StoreWriter &writer, ProfileSessions &sessions)
	: listener_(std::move(listener)),
	  writer_(writer),
	  sessions_(sessions),
	  applications_(std::move(applications_file)),
	  budget_{budget_bytes},
	  scratch_(new char[scratch_bytes])
{
	sigset_t ending;
	sigemptyset(&ending);
	sigaddset(&ending, SIGTERM);
	sigaddset(&ending, SIGINT);
	signals_ = signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC);
	epoll_ = epoll_create1(EPOLL_CLOEXEC);
	if (signals_ == -1 || epoll_ == -1) throw_errno("event loop");
	for (int descriptor : {listener_->descriptor(), signals_}) {
		if (!watch_new(descriptor)) throw_errno("event loop");
	}
}

Server::~Server()
{
	for (const auto &[descriptor, connection] : connections_) close(descriptor);
	close(signals_);
	close(epoll_);
}

void Server::run()
{
	std::array<struct epoll_event, 256> events;
	writer_.set_bounds(bounds_of(applications_.current()));
	while (keep_socket()) {
		// With no connection there is nothing that could stall.
		int timeout_ms = connections_.empty() && accepting_ ? keep_seconds * 1000 : sweep_ms;
		int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), timeout_ms);
		if (count == -1 && errno != EINTR) throw_errno("epoll_wait");
		for (int i = 0; i < count; i++) {
			int descriptor = events[i].data.fd;
			if (descriptor == signals_) return;
			if (descriptor == listener_->descriptor()) {
				accept_agents();
				continue;
			}
			// Closed earlier in this round; its number may not be reused before the next.
			auto found = connections_.find(descriptor);
			if (found != connections_.end()) handle(*found->second, events[i].events);
		}
		close_stalled();
	}
}

// A deleted socket would leave a daemon that no agent finds and that keeps every other from starting.
bool Server::keep_socket()
{
	int64_t now = monotonic_second();
	if (now - kept_second_ < keep_seconds) return true;
	kept_second_ = now;
	int before = listener_->descriptor();
	if (!listener_->keep_name()) {
		log_message(LogLevel::error, "the socket is gone or belongs to another program: exiting");
		return false;
	}
	if (listener_->descriptor() == before) return true;
	log_message(LogLevel::warning, "the socket was deleted: listening again");
	accepting_ = watch_new(listener_->descriptor());
	return true;
}

bool Server::watch_new(int descriptor)
{
	struct epoll_event event = {};
	event.events = EPOLLIN;
	event.data.fd = descriptor;
	return epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void Server::accept_agents()
{
	// A bounded number per round: those who are connected already come first.
	for (int i = 0; i < 64; i++) {
		int descriptor = accept4(listener_->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
		if (descriptor == -1) {
			if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) pause_accepting();
			return;
		}
		auto connection = std::make_unique<Connection>(descriptor, process_of_peer(descriptor), budget_);
		if (!watch_new(descriptor)) {
			close(descriptor);
			return;
		}
		connections_[descriptor] = std::move(connection);
	}
}

// Without this a listener that cannot be served would wake us without end.
void Server::pause_accepting()
{
	refused_log_.message(LogLevel::error, std::string("no more connections for now: ") + strerror(errno));
	epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_->descriptor(), nullptr);
	accepting_ = false;
}

void Server::resume_accepting()
{
	accepting_ = watch_new(listener_->descriptor());
}

void Server::handle(Connection &connection, uint32_t events)
{
	bool open = true;
	if (events & EPOLLOUT) open = send_waiting(connection);
	if (open && connection.waiting_answer().empty() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
		open = receive(connection);
	else if (open && (events & (EPOLLHUP | EPOLLERR)))
		close_connection(connection, nullptr);
}

// One read per event, so that a busy connection does not hold up the others. False when the connection is gone.
bool Server::receive(Connection &connection)
{
	ssize_t count = recv(connection.descriptor, scratch_.get(), scratch_bytes, 0);
	if (count == -1 && (errno == EAGAIN || errno == EINTR)) return true;
	if (count <= 0) {
		close_connection(connection, connection.has_partial_packet() ? "hung up within a packet" : nullptr);
		return false;
	}
	if (!connection.is_busy()) connection.busy_since_second = monotonic_second();
	const char *fault =
		connection.receive({scratch_.get(), static_cast<size_t>(count)}, [&](uint8_t type, std::string body) {
			connection.busy_since_second = monotonic_second();
			return on_packet(connection, type, std::move(body));
		});
	received_bytes_ += count;
	if (fault) close_connection(connection, fault);
	return !fault;
}

// What is wrong with the packet; nothing when it was taken.
const char *Server::on_packet(Connection &connection, uint8_t type, std::string body)
{
	if (type != record_app_info) {
		writer_.put(StoredPacket{type, connection.process, wall_clock_ms(), std::move(body)});
		return nullptr;
	}
	auto query = read_query(body);
	return query ? answer_query(connection, *query) : "sent a query that cannot be read";
}

const char *Server::answer_query(Connection &connection, const Query &query)
{
	const Applications &applications = applications_.current();
	writer_.set_bounds(bounds_of(applications));
	Settings settings = settings_of(applications, query.application);
	int64_t now_ms = wall_clock_ms();
	auto end = sessions_.end_second(query.application, connection.process, monotonic_second(), now_ms);
	if (end) settings["zqs.profile_end_time"] = std::to_string(*end);
	std::string answer = write_answer(stamp_of(settings), query.stamp, settings);

	StoredQuery seen{query.application, connection.process, now_ms, {}, {}, given_lines(settings)};
	seen.sapi = query.environment_value("Server API");
	seen.php_version = query.environment_value("PHP Version");
	writer_.put(std::move(seen));
	std::string to = " given to process " + std::to_string(connection.process);
	log_message(LogLevel::debug, "configuration of \"" + query.application + "\"" + to);

	if (!connection.waiting_answer().empty()) return "asks again without reading its answers";
	ssize_t sent = send(connection.descriptor, answer.data(), answer.size(), MSG_NOSIGNAL);
	size_t taken = sent > 0 ? static_cast<size_t>(sent) : 0;
	if (taken == answer.size()) return nullptr;
	if (sent == -1 && errno != EAGAIN && errno != EINTR) return nullptr; // gone: the next read tells
	if (!connection.keep_answer(std::string_view(answer).substr(taken))) return "does not read its answer";
	watch(connection);
	return nullptr;
}

bool Server::send_waiting(Connection &connection)
{
	std::string_view rest = connection.waiting_answer();
	ssize_t sent = send(connection.descriptor, rest.data(), rest.size(), MSG_NOSIGNAL);
	if (sent == -1 && (errno == EAGAIN || errno == EINTR)) return true;
	if (sent == -1) {
		close_connection(connection, nullptr);
		return false;
	}
	connection.answer_sent(static_cast<size_t>(sent));
	if (connection.waiting_answer().empty()) watch(connection);
	return true;
}

// While an answer waits to be taken, nothing else is read from its agent.
void Server::watch(Connection &connection)
{
	struct epoll_event event = {};
	event.events = connection.waiting_answer().empty() ? EPOLLIN : EPOLLOUT;
	event.data.fd = connection.descriptor;
	epoll_ctl(epoll_, EPOLL_CTL_MOD, connection.descriptor, &event);
}

void Server::close_connection(Connection &connection, const char *why)
{
	if (why) garbled_log_.message(LogLevel::warning, "process " + std::to_string(connection.process) + " " + why);
	int descriptor = connection.descriptor;
	connections_.erase(descriptor);
	close(descriptor);
	if (!accepting_) resume_accepting();
}

void Server::close_stalled()
{
	int64_t now = monotonic_second();
	if (now == swept_second_) return;
	swept_second_ = now;
	if (!accepting_) resume_accepting();
	give_memory_back();
	for (auto next = connections_.begin(); next != connections_.end();) {
		Connection &connection = *(next++)->second;
		bool stalled = connection.is_busy() && now - connection.busy_since_second > stall_seconds;
		if (stalled) close_connection(connection, "stalled within a packet");
	}
}

// What a burst took lies scattered over the allocator's heaps; in the quiet seconds after it, whole pages go back.
void Server::give_memory_back()
{
	constexpr int64_t quiet_bytes = int64_t{1} << 20, burst_bytes = int64_t{16} << 20;
	constexpr int times = 8; // the store's thread may have a backlog still
	bool quiet = received_bytes_ < quiet_bytes;
	if (received_bytes_ > burst_bytes) trims_due_ = times;
	received_bytes_ = 0;
	if (!quiet || trims_due_ == 0) return;
	trims_due_--;
	malloc_trim(0);
}

} // namespace quorbit
