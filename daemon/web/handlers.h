// What the server answers: the page's files to everybody who may ask, the API to those who have a token or a session.
#pragma once

#include "base/bounded_server.h"
#include "export/metrics.h"
#include "web/api.h"
#include "web/sessions.h"

namespace quorbit {

struct Served {
	ApiSource source;
	Sessions &sessions; // these two must outlive the server
	Metrics &metrics;
	std::vector<std::string> hosts;
	int port; // tells the cookies of several servers on one host apart, which browsers send to all ports
};

void add_handlers(BoundedServer &server, const Served &served);

} // namespace quorbit
