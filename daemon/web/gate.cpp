// The checks of requests.
#include "web/gate.h"

#include <algorithm>
#include <strings.h>

namespace quorbit {

namespace {

bool is_api(const std::string &path)
{
	return path.starts_with("/api/");
}

bool same_host(const std::string &origin, const std::string &host)
{
	return origin == "http://" + host || origin == "https://" + host;
}

} // namespace

std::optional<Refusal> refuse(const Visit &visit, const std::vector<std::string> &hosts)
{
	auto is_ours = [&visit](const std::string &host) { return strcasecmp(host.c_str(), visit.host.c_str()) == 0; };
	if (!visit.one_host || std::none_of(hosts.begin(), hosts.end(), is_ours))
		return Refusal{421, "this name is not served here: --host NAME allows it"};
	const bool post = visit.method == "POST";
	if (!post && visit.method != "GET" && visit.method != "HEAD") return Refusal{405, "GET, HEAD and POST only"};
	if (post && !is_api(visit.path)) return Refusal{405, "GET and HEAD only"};
	// Browsers tell where a request comes from; programs say nothing.
	if (!visit.origin.empty() && !same_host(visit.origin, visit.host)) return Refusal{403, "not from another page"};
	const bool from_elsewhere = visit.fetch_site == "cross-site" || visit.fetch_site == "same-site";
	if (from_elsewhere && is_api(visit.path)) return Refusal{403, "not from another page"};
	if (post && visit.content_type != "application/json") return Refusal{415, "the body has to be application/json"};
	return std::nullopt;
}

} // namespace quorbit
