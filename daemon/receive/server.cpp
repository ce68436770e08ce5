// The event loop: accepting, receiving, answering.
#include "receive/server.h"

#include "base/files.h"
#include "base/text.h"
#include "base/clock.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr size_t scratch_bytes = size_t{128} << 10; // what one turn may receive
constexpr size_t budget_bytes = size_t{256} << 20;
// Of the store, the log, the settings, of those who read metrics and where data is sent, and to spare.
constexpr rlim_t own_descriptors = 128;
constexpr int most_events = 1024;
constexpr int crowd = 8;                                  // as many ready at once are served in turns
constexpr auto turns_time = std::chrono::milliseconds(1); // then connections that became ready come first
constexpr size_t most_application = 255;                  // bytes of a name that a connection keeps
constexpr int most_queries = 64;                          // answered before that
// What epoll tells beside the numbers of connections.
constexpr uint64_t listener_number = 0, signals_number = 1, first_number = 2;
// An agent sends a packet in one call with a time-out of 100 ms: one that is still not whole after this never will be.
constexpr int64_t stall_seconds = 10;
constexpr int sweep_ms = 1000;
constexpr int keep_seconds = 5; // between looks at the socket's name

struct ucred peer_of(int descriptor)
{
	struct ucred peer = {};
	socklen_t length = sizeof peer;
	getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length);
	return peer;
}

// How many connections all agents may have together.
size_t most_connections()
{
	struct rlimit limit;
	getrlimit(RLIMIT_NOFILE, &limit);
	return std::max(limit.rlim_cur, 2 * own_descriptors) - own_descriptors;
}

bool begins_with_query(int descriptor)
{
	char type;
	return recv(descriptor, &type, 1, MSG_PEEK) == 1 && type == record_app_info;
}

// What `quorbit status` shows of the settings given: one line each, the account's secret left out.
std::string given_lines(const Settings &settings)
{
	std::string lines;
	for (const auto &[key, value] : settings) {
		if ((key == "zqs.details" || key == "zqs.radar") && value == "1") continue; // asked for by itself
		bool secret = key == "zqs.vantorIdSecret" && !value.empty();
		lines += key + "=" + (secret ? "(set)" : cut(printable(value), 200)) + "\n";
	}
	return lines;
}

} // namespace

StoreBounds bounds_of(const Applications &applications)
{
	StoreBounds bounds;
	bounds.action_bytes = applications.store_mb << 20;
	bounds.event_bytes = applications.profile_mb << 20;
	bounds.sums = {applications.minute_days, applications.hour_days, applications.sums_mb << 20};
	return bounds;
}

Server::Server(std::unique_ptr<Listener> listener, std::string applications_file, StoreWriter &writer,
	std::function<void(const Applications &)> apply, ProfileSessions &sessions)
	: listener_(std::move(listener)),
	  writer_(writer),
	  apply_(std::move(apply)),
	  sessions_(sessions),
	  applications_(std::move(applications_file)),
	  budget_(budget_bytes),
	  descriptors_(most_connections()),
	  last_number_(first_number),
	  scratch_(new char[scratch_bytes])
{
	sigset_t ending;
	sigemptyset(&ending);
	sigaddset(&ending, SIGTERM);
	sigaddset(&ending, SIGINT);
	signals_ = signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC);
	epoll_ = epoll_create1(EPOLL_CLOEXEC);
	if (signals_ == -1 || epoll_ == -1) throw_errno("event loop");
	if (!watch_new(listener_->descriptor(), listener_number, EPOLLIN) || !watch_new(signals_, signals_number, EPOLLIN))
		throw_errno("event loop");
}

Server::~Server()
{
	for (const auto &[number, connection] : connections_) close(connection->descriptor);
	close(signals_);
	close(epoll_);
}

void Server::run(const std::function<bool()> &keep_files)
{
	current_settings();
	while (keep_names(keep_files) && take_events()) {
		serve_turns();
		close_stalled();
	}
}

// The daemon's own of them are put into force.
const Applications &Server::current_settings()
{
	const Applications &applications = applications_.current();
	writer_.set_bounds(bounds_of(applications));
	apply_(applications);
	return applications;
}

// Handles the connections that are ready; waits when none can be served. False when the daemon is to end.
bool Server::take_events()
{
	std::array<struct epoll_event, most_events> events;
	bool waiting = !queries_.empty() || !packets_.empty();
	// With nobody connected there is nothing that could stall.
	const bool nothing_due = connections_.empty() && accepting_ && !(killed_ && killed_->is_waiting());
	int timeout_ms = waiting ? 0 : nothing_due ? keep_seconds * 1000 : sweep_ms;
	int count = epoll_wait(epoll_, events.data(), most_events, timeout_ms);
	if (count == -1 && errno != EINTR) throw_errno("epoll_wait");
	bool crowded = waiting || count > crowd;
	for (int i = 0; i < count; i++) {
		uint64_t number = events[i].data.u64;
		if (number == signals_number) return false;
		if (number == listener_number) {
			accept_agents();
			continue;
		}
		auto found = connections_.find(number);
		if (found != connections_.end()) on_ready(*found->second, events[i].events, crowded);
	}
	return true;
}

// Queries first: somebody waits for their answer. Then packets, until it is time to look at the others again.
void Server::serve_turns()
{
	for (int i = 0; i < most_queries && !queries_.empty(); i++) take_turn(queries_);
	auto end = std::chrono::steady_clock::now() + turns_time;
	while (!packets_.empty() && std::chrono::steady_clock::now() < end) take_turn(packets_);
}

// With its socket deleted, a daemon could not be found and would keep any other from starting.
bool Server::keep_names(const std::function<bool()> &keep_files)
{
	int64_t now = monotonic_second();
	if (now - kept_second_ < keep_seconds) return true;
	kept_second_ = now;
	current_settings(); // nobody may ask for them
	int before = listener_->descriptor();
	if (!listener_->keep_name()) {
		log_message(LogLevel::error, "the socket is gone or belongs to another program: exiting");
		return false;
	}
	if (listener_->descriptor() != before) {
		log_message(LogLevel::warning, "the socket was deleted: listening again");
		resume_accepting();
	}
	try {
		if (keep_files()) return true;
		log_message(LogLevel::error, "the lock is another daemon's: ending");
		return false;
	} catch (const std::runtime_error &failure) {
		log_message(LogLevel::warning, std::string("serving without a pid file or lock: ") + failure.what());
		return true;
	}
}

bool Server::watch_new(int descriptor, uint64_t number, uint32_t events)
{
	struct epoll_event event = {};
	event.events = events;
	event.data.u64 = number;
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
		struct ucred peer = peer_of(descriptor);
		Sender sender{peer.uid, last_number_ + 1};
		// Edge-triggered: a change is reported once, and the connection remembers it.
		if (refuse(sender) || !watch_new(descriptor, sender.connection, EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET)) {
			close(descriptor);
			continue;
		}
		last_number_++;
		connections_[sender.connection] = std::make_unique<Connection>(descriptor, peer.pid, sender, budget_);
	}
}

// An account that has its share of connections gets no more: better told at once than left to wait for nothing.
bool Server::refuse(const Sender &sender)
{
	if (descriptors_.take(sender, 1)) return false;
	refused_log_.message(LogLevel::warning,
		"account " + std::to_string(sender.account) + " has its share of connections: no more of them for now");
	return true;
}

// Without this a listener that cannot be served would wake us without end.
void Server::pause_accepting()
{
	if (!std::exchange(short_of_descriptors_, true))
		log_message(LogLevel::error, std::string("no more connections for now: ") + strerror(errno));
	epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_->descriptor(), nullptr);
	accepting_ = false;
	paused_second_ = monotonic_second();
}

void Server::resume_accepting()
{
	accepting_ = watch_new(listener_->descriptor(), listener_number, EPOLLIN);
}

void Server::on_ready(Connection &connection, uint32_t events, bool crowded)
{
	connection.hung_up |= (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0;
	connection.readable |= (events & EPOLLIN) != 0 || connection.hung_up;
	// While an answer waits to be taken, nothing else is received from its agent.
	if (!connection.waiting_answer().empty() && !send_waiting(connection)) return;
	if (!connection.waiting_answer().empty() || !connection.readable || connection.has_turn) return;
	if (crowded)
		give_turn(connection);
	else
		receive(connection);
}

void Server::give_turn(Connection &connection)
{
	bool query = !connection.has_partial_packet() && begins_with_query(connection.descriptor);
	connection.has_turn = true;
	(query ? queries_ : packets_).add(connection.sender);
}

void Server::take_turn(Turns &turns)
{
	auto found = connections_.find(turns.next());
	if (found == connections_.end()) return;
	found->second->has_turn = false;
	if (found->second->waiting_answer().empty()) receive(*found->second);
}

// Receives once. A connection with more to read gets another turn, after those already waiting.
void Server::receive(Connection &connection)
{
	ssize_t count = recv(connection.descriptor, scratch_.get(), scratch_bytes, 0);
	if (count == -1 && errno == EINTR) return give_turn(connection);
	if (count == -1 && errno == EAGAIN) {
		connection.readable = false;
		return;
	}
	if (count <= 0)
		return close_connection(connection, connection.has_partial_packet() ? "hung up within a packet" : nullptr);
	received_bytes_ += count;
	if (!connection.is_busy()) connection.busy_since_second = monotonic_second();
	const char *fault =
		connection.receive({scratch_.get(), static_cast<size_t>(count)}, [&](uint8_t type, std::string body) {
			connection.busy_since_second = monotonic_second();
			return on_packet(connection, type, std::move(body));
		});
	if (fault) return close_connection(connection, fault);
	// A short read has emptied the socket, and what comes later is told again; the end was told already.
	connection.readable = static_cast<size_t>(count) == scratch_bytes || connection.hung_up;
	if (connection.readable && connection.waiting_answer().empty()) give_turn(connection);
}

// What is wrong with the packet; nothing when it was taken.
const char *Server::on_packet(Connection &connection, uint8_t type, std::string body)
{
	if (type != record_app_info) {
		StoredPacket packet{type, connection.process, wall_clock_ms(), std::move(body), connection.sender.account};
		writer_.put(std::move(packet), connection.sender);
		return nullptr;
	}
	auto query = read_query(body);
	return query ? answer_query(connection, *query) : "sent a query that cannot be read";
}

const char *Server::answer_query(Connection &connection, const Query &query)
{
	const Applications &applications = current_settings();
	Settings settings = settings_of(applications, query.application);
	connection.application = query.application.substr(0, most_application);
	int64_t now_ms = wall_clock_ms();
	auto end = sessions_.end_second(query.application, connection.process, monotonic_second(), now_ms);
	if (end) settings["zqs.profile_end_time"] = std::to_string(*end);
	std::string answer = write_answer(stamp_of(settings), query.stamp, settings);

	StoredQuery seen{query.application, connection.process, now_ms, {}, {}, given_lines(settings)};
	seen.sapi = query.environment_value("Server API");
	seen.php_version = query.environment_value("PHP Version");
	writer_.put(std::move(seen), connection.sender);
	std::string to = " given to process " + std::to_string(connection.process);
	log_message(LogLevel::debug, "configuration of \"" + query.application + "\"" + to);

	if (!connection.waiting_answer().empty()) return "asks again without reading its answers";
	ssize_t sent = send(connection.descriptor, answer.data(), answer.size(), MSG_NOSIGNAL);
	size_t taken = sent > 0 ? static_cast<size_t>(sent) : 0;
	if (taken == answer.size()) return nullptr;
	if (sent == -1 && errno != EAGAIN && errno != EINTR) return nullptr; // gone: the next read tells
	return connection.keep_answer(std::string_view(answer).substr(taken)) ? nullptr : "does not read its answer";
}

// False when the connection is gone.
bool Server::send_waiting(Connection &connection)
{
	std::string_view rest = connection.waiting_answer();
	ssize_t sent = send(connection.descriptor, rest.data(), rest.size(), MSG_NOSIGNAL);
	if (sent == -1 && (errno == EAGAIN || errno == EINTR) && !connection.hung_up) return true;
	if (sent == -1) {
		close_connection(connection, nullptr);
		return false;
	}
	connection.answer_sent(static_cast<size_t>(sent));
	return true;
}

void Server::close_connection(Connection &connection, const char *why)
{
	if (why) {
		garbled_log_.message(LogLevel::warning, "process " + std::to_string(connection.process) + " " + why);
		writer_.count_dropped(connection.application, why);
	}
	int descriptor = connection.descriptor;
	Sender sender = connection.sender;
	connections_.erase(sender.connection);
	descriptors_.give_back(sender, 1);
	close(descriptor);
	if (!accepting_) resume_accepting();
}

void Server::close_stalled()
{
	int64_t now = monotonic_second();
	if (now == swept_second_) return;
	swept_second_ = now;
	if (killed_) killed_->look();
	if (!accepting_)
		resume_accepting();
	else if (short_of_descriptors_ && now - paused_second_ > 1) {
		short_of_descriptors_ = false;
		log_message(LogLevel::info, "connections are taken again");
	}
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
