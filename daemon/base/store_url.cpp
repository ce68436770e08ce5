// Taking the address apart.
#include "base/store_url.h"

#include "base/files.h"
#include "base/number.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace quorbit {

namespace {

// "%2F" as "/"; what is no such code stays.
std::string decoded(std::string_view text)
{
	std::string out;
	for (size_t i = 0; i < text.size(); i++) {
		unsigned char code = 0;
		const char *digits = text.data() + i + 1;
		if (text[i] == '%' && i + 2 < text.size() && std::from_chars(digits, digits + 2, code, 16).ptr == digits + 2) {
			out += static_cast<char>(code);
			i += 2;
		} else {
			out += text[i];
		}
	}
	return out;
}

bool is_name(std::string_view text)
{
	auto fits = [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; };
	return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), fits);
}

// "host:port", with the port that the scheme has when there is none.
std::string host_of(std::string_view text, bool encrypted)
{
	auto fits = [](char c) { return isalnum(static_cast<unsigned char>(c)) || strchr(".-_:[]", c); };
	if (text.empty() || !std::all_of(text.begin(), text.end(), fits))
		throw std::runtime_error("a host's name is missing, or has characters that no host's name has");
	const size_t colon = text.rfind(':');
	if (colon == std::string_view::npos || text.ends_with(']'))
		return std::string(text) + (encrypted ? ":8443" : ":8123");
	uint16_t port = 0;
	if (!parse_number(text.substr(colon + 1), port) || port == 0)
		throw std::runtime_error("the port is a number from 1 to 65535");
	return std::string(text);
}

} // namespace

std::string StoreUrl::address(size_t host) const
{
	return (encrypted ? "https://" : "http://") + hosts[host];
}

std::string StoreUrl::shown() const
{
	std::string text = address(0);
	for (size_t i = 1; i < hosts.size(); i++) text += "," + hosts[i];
	return text + "/" + database;
}

StoreUrl parse_store_url(std::string_view text)
{
	StoreUrl url;
	url.encrypted = text.starts_with("https://");
	if (!url.encrypted && !text.starts_with("http://"))
		throw std::runtime_error("the address of a store begins with http:// or https://");
	text.remove_prefix(url.encrypted ? 8 : 7);
	const size_t slash = text.rfind('/'), at = text.rfind('@');
	if (slash == std::string_view::npos || (at != std::string_view::npos && slash < at) ||
		!is_name(text.substr(slash + 1)))
		throw std::runtime_error("the address of a store ends with the name of a database: http://host:8123/quorbit");
	url.database = text.substr(slash + 1);
	text = text.substr(0, slash);
	if (at != std::string_view::npos) {
		const std::string_view account = text.substr(0, at);
		const size_t colon = account.find(':');
		url.user = decoded(account.substr(0, colon));
		if (colon != std::string_view::npos) url.password = decoded(account.substr(colon + 1));
		text.remove_prefix(at + 1);
	}
	for (size_t begin = 0; begin <= text.size();) {
		const size_t end = std::min(text.find(',', begin), text.size());
		url.hosts.push_back(host_of(text.substr(begin, end - begin), url.encrypted));
		begin = end + 1;
	}
	return url;
}

void read_password(StoreUrl &url, const std::string &file)
{
	if (!url.password.empty() || file.empty()) return;
	const std::string text = read_file(file, true);
	url.password = text.substr(0, text.find_first_of("\r\n"));
	if (url.password.empty()) throw std::runtime_error(file + ": the first line has no password");
}

} // namespace quorbit
