// The HTTP server, with bounds of its own: one request for each connection, so many bytes for it and so much time.
#pragma once

#include <httplib.h>

#include <atomic>

namespace quorbit {

class BoundedServer : public httplib::Server {
public:
	static constexpr size_t workers = 8;            // requests at a time
	static constexpr size_t most_waiting = 64;      // connections that wait for one; further ones are closed
	static constexpr size_t most_bytes = 32 * 1024; // of a request, its body included
	static constexpr size_t most_body = 4 * 1024;
	static constexpr int most_seconds = 10; // until it has come, and again until the answer has gone

	BoundedServer();

protected:
	// Answers what comes over a connection, and closes it.
	bool process_and_close_socket(int socket) override;
};

} // namespace quorbit
