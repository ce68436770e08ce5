// Which requests are let in at all, before anybody asks who sent them.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorbit {

// What a request says of itself; "" for a header that is absent.
struct Visit {
	std::string method, path, host, origin, fetch_site, content_type;
	bool one_host = true; // exactly one Host header
};

struct Refusal {
	int status;
	std::string message;
};

// Nothing for a request that may go on: for one of our hosts, by a method that we have, and, where it wants to change
// something, as JSON from a page of our own.
std::optional<Refusal> refuse(const Visit &visit, const std::vector<std::string> &hosts);

} // namespace quorbit
