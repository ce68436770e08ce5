// The lists of the API: requests, sums, one key of them, sums over time, comparisons, who calls whom.
#pragma once

#include "store/reader.h"
#include "web/api.h"

#include <map>
#include <stdexcept>
#include <string>

namespace quorbit {

using Parameters = std::multimap<std::string, std::string>;

// A parameter that cannot be what it is for; says which and why.
struct BadParameter : std::runtime_error {
	using std::runtime_error::runtime_error;
};

// Each answers with JSON in ASCII and throws BadParameter.
std::string api_requests(Reader &store, const Parameters &parameters);
std::string api_top(Reader &store, const Parameters &parameters);
std::string api_series(Reader &store, const Parameters &parameters);
std::string api_compare(Reader &store, const Parameters &parameters);
std::string api_releases(Reader &store, const Parameters &parameters);
std::string api_services(Reader &store, const Parameters &parameters);
std::string api_hosts(Reader &store, const Parameters &parameters);
// What the store of that file has on the radar; with the parameter `format` as CSV or SARIF.
ApiAnswer api_radar(const std::string &store_path, const Parameters &parameters);
// `path` is "KIND/ID". "" when there is no such key.
std::string api_key(Reader &store, std::string_view path, const Parameters &parameters);

} // namespace quorbit
