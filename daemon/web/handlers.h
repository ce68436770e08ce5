// What the server answers: the page's files to everybody who may ask, the API to those who have a token or a session.
#pragma once

#include "web/api.h"
#include "web/bounded_server.h"
#include "web/sessions.h"

namespace quorbit {

struct Served {
	ApiSource source;
	Sessions &sessions; // which must outlive the server
	std::vector<std::string> hosts;
	int port; // tells the cookies of several servers on one host apart, which browsers send to all ports
};

void add_handlers(BoundedServer &server, const Served &served);

} // namespace quorbit
