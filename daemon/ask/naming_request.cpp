// Requests as access logs and lists write them.
#include "ask/naming.h"

#include "zqp_naming_uri.h"
#include "zqp_text.h"

#include <algorithm>

namespace quorbit {

namespace {

// The value of two hexadecimal digits, -1 for anything else.
int hex_byte(std::string_view digits)
{
	return digits.size() == 2 ? zq_hex_byte(digits.data()) : -1;
}

// Web servers write quotes, backslashes and control bytes of a client as \" \\ \n \x1b.
std::string unescape_log(std::string_view text)
{
	std::string out;
	for (size_t i = 0; i < text.size(); i++) {
		if (text[i] != '\\' || i + 1 == text.size()) {
			out += text[i];
			continue;
		}
		char escape = text[++i];
		int byte = escape == 'x' ? hex_byte(text.substr(i + 1, 2)) : -1;
		if (byte >= 0) i += 2;
		out += byte >= 0 ? static_cast<char>(byte) : escape == 'n' ? '\n' : escape == 't' ? '\t' : escape;
	}
	return out;
}

// The quoted parts of a log line; of one that has none, the line.
std::vector<std::string> quoted_parts(std::string_view line)
{
	std::vector<std::string> parts;
	for (size_t at = line.find('"'); at != std::string_view::npos; at = line.find('"', at)) {
		size_t end = ++at;
		while (end < line.size() && line[end] != '"') end += line[end] == '\\' ? 2 : 1;
		end = std::min(end, line.size());
		parts.push_back(unescape_log(line.substr(at, end - at)));
		at = std::min(end + 1, line.size());
	}
	if (parts.empty()) parts.emplace_back(line);
	return parts;
}

std::string url_decode(std::string_view text)
{
	std::string out;
	for (size_t i = 0; i < text.size(); i++) {
		int byte = text[i] == '%' ? hex_byte(text.substr(i + 1, 2)) : -1;
		if (byte >= 0) i += 2;
		out += byte >= 0 ? static_cast<char>(byte) : text[i] == '+' ? ' ' : text[i];
	}
	return out;
}

// As PHP fills $_GET: the last of a name counts, "a[]" and "a[x]" make an array "a", " " and "." become "_".
SampleRequest::Parameters parse_query(std::string_view query)
{
	SampleRequest::Parameters found;
	while (!query.empty()) {
		std::string_view pair = query.substr(0, query.find('&'));
		query.remove_prefix(std::min(query.size(), pair.size() + 1));
		size_t equals = std::min(pair.find('='), pair.size());
		std::string name = url_decode(pair.substr(0, equals));
		name.erase(0, name.find_first_not_of(' '));
		name.resize(strlen(name.c_str()));
		size_t bracket = name.find('[');
		bool is_array = bracket != std::string::npos && bracket > 0 && name.find(']', bracket) != std::string::npos;
		if (is_array) name.resize(bracket);
		for (char &ch : name) ch = ch == ' ' || ch == '.' || ch == '[' ? '_' : ch;
		if (name.empty()) continue;
		if (is_array)
			found[name] = std::nullopt;
		else
			found[name] = url_decode(pair.substr(std::min(equals + 1, pair.size())));
	}
	return found;
}

// "GET /path?query HTTP/1.1", the protocol optional.
bool parse_request(std::string_view text, SampleRequest *request)
{
	size_t blank = text.find(' ');
	if (blank == 0 || blank == std::string_view::npos) return false;
	request->method = text.substr(0, blank);
	if (request->method.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ-") != std::string::npos) return false;
	text.remove_prefix(std::min(text.find_first_not_of(' ', blank), text.size()));
	std::string_view uri = text.substr(0, text.find(' '));
	if (uri.empty() || uri[0] != '/') return false;
	size_t question = std::min(uri.find('?'), uri.size());
	std::string path(uri.size() + 2, '\0');
	zq_clean_request_path(std::string(uri).c_str(), path.data());
	request->path = path.c_str();
	request->query = parse_query(uri.substr(std::min(question + 1, uri.size())));
	return true;
}

} // namespace

std::optional<SampleRequest> parse_request_line(std::string_view line)
{
	auto parts = quoted_parts(line);
	SampleRequest request;
	if (!parse_request(parts[0], &request)) return std::nullopt;
	static constexpr const char *headers[] = {"HTTP_REFERER", "HTTP_USER_AGENT"};
	for (size_t i = 0; i < std::size(headers) && i + 1 < parts.size(); i++) {
		if (parts[i + 1] != "-") request.headers[headers[i]] = parts[i + 1];
	}
	return request;
}

} // namespace quorbit
