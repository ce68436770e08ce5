/* Reading and writing trace context, and the rules of where it goes. */
#include "zqp_traceparent.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "zqp_text.h"

namespace {

/* -1 for anything but a digit in lower case. */
int hex_digit(char ch)
{
	return ch >= '0' && ch <= '9' ? ch - '0' : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
}

bool read_hex(std::string_view text, unsigned char *bytes)
{
	for (size_t i = 0; i < text.size(); i += 2) {
		int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
		if (high < 0 || low < 0) {
			return false;
		}
		bytes[i / 2] = (unsigned char)(high << 4 | low);
	}
	return true;
}

bool is_zero(const unsigned char *id, size_t size)
{
	for (size_t i = 0; i < size; i++) {
		if (id[i]) {
			return false;
		}
	}
	return true;
}

bool read_id(std::string_view text, unsigned char *id)
{
	return read_hex(text, id) && !is_zero(id, text.size() / 2);
}

bool starts_with(std::string_view text, std::string_view prefix)
{
	return text.size() >= prefix.size() && zq_strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool equals(std::string_view a, std::string_view b)
{
	return a.size() == b.size() && starts_with(a, b);
}

bool contains(std::string_view text, std::string_view part)
{
	for (size_t at = 0; at + part.size() <= text.size(); at++) {
		if (starts_with(text.substr(at), part)) {
			return true;
		}
	}
	return false;
}

std::string_view trimmed(std::string_view text)
{
	size_t first = text.find_first_not_of(" \t\r\n");
	size_t last = text.find_last_not_of(" \t\r\n");
	return first == std::string_view::npos ? std::string_view() : text.substr(first, last - first + 1);
}

/* "example.com" of "https://user@Example.com:81/path"; "::1" of "http://[::1]/". */
std::string_view host_of(std::string_view url)
{
	size_t scheme = url.find("://");
	if (scheme != std::string_view::npos && scheme < url.find_first_of("/?#")) {
		url.remove_prefix(scheme + 3);
	}
	url = url.substr(0, url.find_first_of("/?#\\"));
	size_t account = url.rfind('@');
	url.remove_prefix(account == std::string_view::npos ? 0 : account + 1);
	if (!url.empty() && url[0] == '[') {
		return url.substr(1, url.find(']') - 1);
	}
	url = url.substr(0, url.find(':'));
	while (!url.empty() && url.back() == '.') {
		url.remove_suffix(1);
	}
	return url;
}

/* Goes back to the last "*" alone, so that no pattern takes long. */
bool fits(std::string_view text, std::string_view pattern)
{
	size_t at = 0, in_pattern = 0, star = std::string_view::npos, taken = 0;
	while (at < text.size()) {
		if (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
			star = in_pattern++;
			taken = at;
		} else if (in_pattern < pattern.size() && zq_ascii_lower(pattern[in_pattern]) == zq_ascii_lower(text[at])) {
			in_pattern++;
			at++;
		} else if (star != std::string_view::npos) {
			in_pattern = star + 1;
			at = ++taken;
		} else {
			return false;
		}
	}
	while (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
		in_pattern++;
	}
	return in_pattern == pattern.size();
}

/* Schemes whose credentials do not depend on what else is in the request. */
constexpr auto plain_schemes =
	std::to_array<std::string_view>({"Basic", "Bearer", "Digest", "Negotiate", "NTLM", "Token"});

bool is_plain_authorization(std::string_view value)
{
	value = trimmed(value);
	std::string_view scheme = value.substr(0, value.find_first_of(" \t"));
	for (std::string_view plain : plain_schemes) {
		if (equals(scheme, plain)) {
			return true;
		}
	}
	return value.empty();
}

} // namespace

bool zq_read_traceparent(std::string_view text, zq_traceparent *found)
{
	text = trimmed(text);
	zq_traceparent read;
	unsigned char version, flags;
	if (text.size() < ZQ_TRACEPARENT_LEN || text[2] != '-' || text[35] != '-' || text[52] != '-' ||
		!read_hex(text.substr(0, 2), &version) || version == 0xFF || !read_id(text.substr(3, 32), read.trace_id) ||
		!read_id(text.substr(36, 16), read.span_id) || !read_hex(text.substr(53, 2), &flags)) {
		return false;
	}
	/* later versions may go on, behind one more "-" */
	if (text.size() > ZQ_TRACEPARENT_LEN && (version == 0 || text[ZQ_TRACEPARENT_LEN] != '-')) {
		return false;
	}
	read.sampled = flags & 1;
	*found = read;
	return true;
}

void zq_write_hex(const unsigned char *id, size_t size, char *text)
{
	for (size_t i = 0; i < size; i++) {
		*text++ = "0123456789abcdef"[id[i] >> 4];
		*text++ = "0123456789abcdef"[id[i] & 15];
	}
}

void zq_write_traceparent(const zq_traceparent &parent, char *text)
{
	memcpy(text, "00-", 3);
	zq_write_hex(parent.trace_id, ZQ_TRACE_ID_SIZE, text + 3);
	text[35] = '-';
	zq_write_hex(parent.span_id, ZQ_SPAN_ID_SIZE, text + 36);
	memcpy(text + 52, parent.sampled ? "-01" : "-00", sizeof("-01"));
}

void zq_derive_id(unsigned char *id, size_t size, std::string_view kind, std::string_view text)
{
	uint64_t seed = 14695981039346656037u;
	for (size_t at = 0; at < size; at += 8, seed = ~seed) {
		uint64_t hash = seed; /* FNV-1a */
		for (std::string_view part : {kind, std::string_view("\0", 1), text}) {
			for (char ch : part) {
				hash = (hash ^ (unsigned char)ch) * 1099511628211u;
			}
		}
		hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9u; /* spreads it, as splitmix64 does */
		hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebu;
		hash ^= hash >> 31;
		for (int i = 0; i < 8; i++) {
			id[at + (size_t)i] = (unsigned char)(hash >> (8 * i));
		}
	}
	if (is_zero(id, size)) { /* is no id */
		id[0] = 1;
	}
}

void zq_trace_id_of(unsigned char *id, std::string_view transaction_id)
{
	if (transaction_id.size() != 2 * ZQ_TRACE_ID_SIZE || !read_id(transaction_id, id)) {
		zq_derive_id(id, ZQ_TRACE_ID_SIZE, "transaction", transaction_id);
	}
}

bool zq_host_is_denied(std::string_view url, const char *patterns)
{
	std::string_view host = host_of(url), rest = patterns ? patterns : "", pattern;
	while (zq_next_piece(&rest, ",", &pattern)) {
		pattern = trimmed(pattern);
		if (!pattern.empty() && fits(host, pattern)) {
			return true;
		}
	}
	return false;
}

bool zq_url_is_signed(std::string_view url)
{
	size_t query = url.find('?');
	std::string_view rest = query == std::string_view::npos ? std::string_view() : url.substr(query + 1), pair;
	rest = rest.substr(0, rest.find('#'));
	while (zq_next_piece(&rest, "&;", &pair)) {
		std::string_view name = pair.substr(0, pair.find('='));
		if (contains(name, "signature") || equals(name, "sig") || equals(name, "sign") || equals(name, "hmac")) {
			return true;
		}
	}
	return false;
}

bool zq_header_forbids_traceparent(std::string_view name, std::string_view value)
{
	name = trimmed(name);
	return equals(name, "traceparent") || contains(name, "signature") || starts_with(name, "x-amz-") ||
		starts_with(name, "x-goog-") || (equals(name, "authorization") && !is_plain_authorization(value));
}

bool zq_line_forbids_traceparent(std::string_view line)
{
	size_t colon = line.find_first_of(":;"); /* curl takes "name;" for a header without a value */
	std::string_view value = colon == std::string_view::npos ? std::string_view() : line.substr(colon + 1);
	return zq_header_forbids_traceparent(line.substr(0, colon), value);
}
