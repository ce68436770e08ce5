// The receiver: one thread, one epoll set, any number of agents, each of which gets its share.
#pragma once

#include "facts/applications.h"
#include "receive/connection.h"
#include "receive/killed.h"
#include "receive/listener.h"
#include "base/log.h"
#include "receive/turns.h"
#include "store/profile_sessions.h"
#include "store/store_writer.h"

#include <functional>
#include <optional>
#include <unordered_map>

namespace quorbit {

// What the operator's settings allow the store.
StoreBounds bounds_of(const Applications &applications);

class Server {
public:
	// `apply` is given the daemon's own settings again and again, from the thread that serves agents.
	Server(std::unique_ptr<Listener> listener, std::string applications_file, StoreWriter &writer,
		std::function<void(const Applications &)> apply, ProfileSessions &sessions);
	~Server();

	// Makes this board, keeps it, and reports the requests on it that end with their process. Without one, everything
	// else works.
	void watch_board(const std::string &path)
	{
		killed_.emplace(path, static_cast<uint32_t>(applications_.current().board_slots), writer_);
		killed_->look();
	}

	// Works until SIGTERM or SIGINT, which the caller has blocked, or until agents can no longer find the socket.
	// Calls keep_files() every five seconds, which makes sure of what else others know the daemon by; false from it is
	// the end as well. Throws std::system_error when the kernel refuses epoll.
	void run(const std::function<bool()> &keep_files);

private:
	bool take_events();
	void serve_turns();
	void accept_agents();
	bool watch_new(int descriptor, uint64_t number, uint32_t events);
	bool refuse(const Sender &sender);
	void pause_accepting();
	void resume_accepting();
	bool keep_names(const std::function<bool()> &keep_files);
	void on_ready(Connection &connection, uint32_t events, bool crowded);
	void give_turn(Connection &connection);
	void take_turn(Turns &turns);
	void receive(Connection &connection);
	bool send_waiting(Connection &connection);
	const char *on_packet(Connection &connection, uint8_t type, std::string body);
	const char *answer_query(Connection &connection, const Query &query);
	void close_connection(Connection &connection, const char *why);
	void close_stalled();
	void give_memory_back();
	const Applications &current_settings();

	std::unique_ptr<Listener> listener_;
	int epoll_ = -1;
	int signals_ = -1;
	bool accepting_ = true, short_of_descriptors_ = false;
	int64_t swept_second_ = 0, kept_second_ = 0, paused_second_ = 0;
	int64_t received_bytes_ = 0; // since the last sweep
	int trims_due_ = 0;
	StoreWriter &writer_;
	const std::function<void(const Applications &)> apply_;
	std::optional<KilledWatch> killed_;
	ProfileSessions &sessions_;
	ApplicationsFile applications_;
	Shares budget_;      // of what is half received or not yet taken
	Shares descriptors_; // of connections
	uint64_t last_number_;
	std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_; // by number
	Turns queries_, packets_; // connections that have something to receive: a query comes first, or something else
	std::unique_ptr<char[]> scratch_;
	LogLimit garbled_log_, refused_log_;
};

} // namespace quorbit
