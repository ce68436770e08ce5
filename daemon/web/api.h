// The questions of the page and of programs, as JSON over HTTP (docs/api.md).
#pragma once

#include "base/config.h"

#include <functional>
#include <map>
#include <string>

namespace quorbit {

struct ApiAnswer {
	int status = 200;
	std::string body; // JSON in ASCII, unless it has another type
	const char *type = "application/json";
};

class Profiles;

struct ApiSource {
	DaemonConfig config;
	std::function<std::string(const DaemonConfig &config)> status; // what `quorbit status --json` prints
	std::function<std::string(const DaemonConfig &config)> now;    // what `quorbit now --json` prints
	Profiles *profiles = nullptr;                                  // which outlive whoever asks
	bool sample = false;                                           // nobody runs this: there is nothing to order
};

// The answer to a GET of `path`, which begins with "/api/v1/", with these parameters of the query. Asks the store, and
// changes nothing. May be called from many threads.
ApiAnswer answer_api(
	const ApiSource &source, const std::string &path, const std::multimap<std::string, std::string> &parameters);

// The answer to an order, a POST of `path` with this body, from somebody who may give it.
ApiAnswer obey(const ApiSource &source, const std::string &path, const std::string &body);

// {"error": message}
ApiAnswer api_error(int status, const std::string &message);

} // namespace quorbit
