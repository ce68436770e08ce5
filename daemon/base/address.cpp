// Reading addresses.
#include "base/address.h"

#include "base/number.h"

#include <arpa/inet.h>
#include <stdexcept>
#include <sys/un.h>

namespace quorbit {

namespace {

constexpr std::string_view unix_prefix = "unix:";

bool is_ip_address(const std::string &text, int family)
{
	unsigned char bytes[sizeof(struct in6_addr)];
	return inet_pton(family, text.c_str(), bytes) == 1;
}

} // namespace

bool ListenAddress::loopback() const
{
	return unix_socket() || host == "::1" || host.starts_with("127.");
}

std::string ListenAddress::origin() const
{
	if (unix_socket()) return "http://localhost";
	const bool six = host.find(':') != std::string::npos;
	return "http://" + (six ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

ListenAddress parse_listen(std::string_view text)
{
	if (text.starts_with(unix_prefix)) {
		const std::string path(text.substr(unix_prefix.size()));
		if (!path.starts_with('/') || path.size() >= sizeof(sockaddr_un::sun_path))
			throw std::runtime_error("--listen unix:PATH needs a full path of at most 107 bytes");
		return {path, 0};
	}
	const size_t colon = text.rfind(':');
	ListenAddress address;
	if (colon != std::string_view::npos) {
		std::string_view host = text.substr(0, colon), port = text.substr(colon + 1);
		const bool brackets = host.starts_with('[') && host.ends_with(']');
		address.host = brackets ? host.substr(1, host.size() - 2) : host;
		if (parse_number(port, address.port) && address.port > 0 && address.port < 65536 &&
			is_ip_address(address.host, brackets ? AF_INET6 : AF_INET))
			return address;
	}
	throw std::runtime_error("--listen needs ADDRESS:PORT, [ADDRESS]:PORT or unix:PATH");
}

std::vector<std::string> allowed_hosts(const ListenAddress &address, const std::vector<std::string> &names)
{
	std::vector<std::string> hosts = names;
	constexpr size_t scheme = std::string_view("http://").size();
	hosts.push_back(address.origin().substr(scheme));
	if (address.loopback() && !address.unix_socket()) hosts.push_back("localhost:" + std::to_string(address.port));
	return hosts;
}

} // namespace quorbit
