// The receiver: one thread, one epoll set, any number of agents.
#pragma once

#include "facts/applications.h"
#include "receive/connection.h"
#include "receive/listener.h"
#include "base/log.h"
#include "store/profile_sessions.h"
#include "store/store_writer.h"

#include <unordered_map>

namespace quorbit {

class Server {
public:
	Server(std::unique_ptr<Listener> listener, std::string applications_file, StoreWriter &writer,
		ProfileSessions &sessions);
	~Server();

	// Works until SIGTERM or SIGINT, which the caller has blocked, or until agents can no longer find the socket.
	// Throws std::system_error when the kernel refuses epoll.
	void run();

private:
	void accept_agents();
	bool watch_new(int descriptor);
	void pause_accepting();
	void resume_accepting();
	bool keep_socket();
	void handle(Connection &connection, uint32_t events);
	bool receive(Connection &connection);
	bool send_waiting(Connection &connection);
	const char *on_packet(Connection &connection, uint8_t type, std::string body);
	const char *answer_query(Connection &connection, const Query &query);
	void close_connection(Connection &connection, const char *why);
	void close_stalled();
	void give_memory_back();
	void watch(Connection &connection);

	std::unique_ptr<Listener> listener_;
	int epoll_ = -1;
	int signals_ = -1;
	bool accepting_ = true;
	int64_t swept_second_ = 0, kept_second_ = 0;
	int64_t received_bytes_ = 0; // since the last sweep
	int trims_due_ = 0;
	StoreWriter &writer_;
	ProfileSessions &sessions_;
	ApplicationsFile applications_;
	BufferBudget budget_;
	std::unordered_map<int, std::unique_ptr<Connection>> connections_; // by descriptor
	std::unique_ptr<char[]> scratch_;
	LogLimit garbled_log_, refused_log_;
};

} // namespace quorbit
