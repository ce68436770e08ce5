// A page of the operator's own as the probe.
#include "host/probe.h"

#include <httplib.h>

namespace quorbit {

namespace {

constexpr int answer_seconds = 10;

// Where the path begins in an address; its length when it has none.
size_t path_begin(const std::string &url)
{
	const size_t scheme = url.find("://");
	return std::min(url.find('/', scheme == std::string::npos ? 0 : scheme + 3), url.size());
}

} // namespace

ProbeAnswer probe_url(const std::string &url)
{
	ProbeAnswer answer;
	const size_t begin = path_begin(url);
	httplib::Client client(url.substr(0, begin));
	client.set_read_timeout(answer_seconds);
	const auto result = client.is_valid() ? client.Get(begin == url.size() ? "/" : url.substr(begin))
										  : httplib::Result(nullptr, httplib::Error::Connection);
	if (!result) answer.trouble = "no answer (" + httplib::to_string(result.error()) + ")";
	return answer;
}

std::string path_of_url(const std::string &url)
{
	const std::string path = url.substr(path_begin(url));
	return path.empty() ? "/" : path.substr(0, path.find_first_of("?#"));
}

} // namespace quorbit
