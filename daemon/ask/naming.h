// A dry run of naming: which names a list of requests would get under an application's settings. The naming itself is
// the agent's own code (ext/zqp_naming_rules.*, ext/zqp_naming_uri.h).
#pragma once

#include "facts/wire.h"

#include <istream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

// What is known of one request.
struct SampleRequest {
	// By name; nothing for an array, which is neither a text nor absent.
	using Parameters = std::map<std::string, std::optional<std::string>, std::less<>>;

	std::string method, path;  // the path without the query, as web servers hand it on
	Parameters query, headers; // headers by their server key: "HTTP_USER_AGENT"
};

// One line: "GET /path?query", or a line of an access log in the common or combined format. Nothing when it is neither.
std::optional<SampleRequest> parse_request_line(std::string_view line);

enum class NamedBy { rule, uri, script };

struct GivenName {
	std::string name;
	NamedBy by;
};

// The names that an application's settings give.
class Namer {
public:
	// `script` is the file that the server runs for URIs that do not name one.
	// `fpm`: the server hands on the script's own URI, as it is under CGI and FPM behind a front controller, unless the
	// settings ask for the path.
	Namer(const Settings &settings, std::string script, bool fpm = false);

	GivenName name(const SampleRequest &request) const;

	// Where the naming rules stop being JSON; nothing when they are, or when there are none.
	std::optional<std::string> invalid_rules() const;

	// What the agent's log says of the regular expressions of zqs.urls_captured and of the rules that are refused, or
	// held against the beginning of a text only: a line each.
	std::vector<std::string> doubtful_patterns() const;

private:
	std::string uri_of(const SampleRequest &request) const;

	std::string rules_, captured_, script_, filter_;
	bool by_script_uri_;
	bool automatic_;
};

struct NameCount {
	std::string name;
	NamedBy by;
	int64_t requests;
};

struct NameCounts {
	std::vector<NameCount> names; // the busiest first
	int64_t requests = 0;
	std::vector<int64_t> passed_over; // numbers of the first lines that are not requests, at most 5
	int64_t passed_over_count = 0;
};

// The paths from which no packet has come, and how many requests each; digits are "*". Files with another ending than
// PHP's do not count, as the web server hands them out by itself. `seen` are the paths from which packets came.
std::map<std::string, int64_t> count_missing(std::istream &lines, const std::set<std::string> &seen);

// Names every request of a text; empty lines and those that begin with "#" do not count.
NameCounts count_names(std::istream &lines, const Namer &namer);

// The report for the operator: at most `most` names, in `width` columns (0: no limit).
std::string names_text(const NameCounts &counts, size_t most, size_t width, const std::string &script);

} // namespace quorbit
