// Where the page is served, and by which names a browser may ask for it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

struct ListenAddress {
	std::string host; // an IP address without brackets, or the path of a UNIX socket
	int port = 0;     // 0 for a UNIX socket
	bool unix_socket() const { return port == 0; }
	bool loopback() const; // reached from this host alone
	// "http://127.0.0.1:7180", without a slash at its end; for a UNIX socket "http://localhost".
	std::string origin() const;
};

// Reads "127.0.0.1:7180", "[::1]:7180", "unix:/run/quorbit.sock". Throws std::runtime_error with a message for the
// operator.
ListenAddress parse_listen(std::string_view text);

// The values of a Host header under which this address may be asked: any other is a name that somebody else has pointed
// at this host (DNS rebinding). `names` are those that the operator allows, with a port or without.
std::vector<std::string> allowed_hosts(const ListenAddress &address, const std::vector<std::string> &names);

} // namespace quorbit
