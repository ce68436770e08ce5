// Repair and parsing of agents' JSON.
#include "base/json_text.h"

#include "base/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

constexpr std::string_view replacement = "\\ufffd";

// The code unit of the "\uXXXX" at `at`, or -1.
int unit_at(std::string_view text, size_t at)
{
	if (at + 6 > text.size() || text[at] != '\\' || text[at + 1] != 'u') return -1;
	int unit = 0;
	for (size_t i = at + 2; i < at + 6; i++) {
		const char *digits = "0123456789abcdef";
		const char *found = strchr(digits, text[i] | 0x20);
		if (!found || !*found) return -1;
		unit = unit * 16 + static_cast<int>(found - digits);
	}
	return unit;
}

bool high_surrogate(int unit)
{
	return unit >= 0xD800 && unit < 0xDC00;
}
bool low_surrogate(int unit)
{
	return unit >= 0xDC00 && unit < 0xE000;
}

// Copies the escape at `at`, inside a string; returns its length.
size_t copy_escape(std::string_view text, size_t at, std::string &out)
{
	int unit = unit_at(text, at);
	if (high_surrogate(unit) && low_surrogate(unit_at(text, at + 6))) {
		out += text.substr(at, 12);
		return 12;
	}
	if (high_surrogate(unit) || low_surrogate(unit)) {
		out += replacement;
		return 6;
	}
	out += text.substr(at, 2);
	return at + 1 < text.size() ? 2 : 1;
}

std::string repair(std::string_view text)
{
	std::string out;
	out.reserve(text.size());
	bool in_string = false;
	for (size_t at = 0; at < text.size();) {
		auto byte = static_cast<unsigned char>(text[at]);
		if (in_string && byte == '\\') {
			at += copy_escape(text, at, out);
			continue;
		}
		if (byte == '"') in_string = !in_string;
		if (in_string && byte < 0x20) {
			char escape[8];
			snprintf(escape, sizeof escape, "\\u%04x", byte);
			out += escape;
		} else {
			out += text[at];
		}
		at++;
	}
	return valid_utf8(out);
}

} // namespace

std::optional<Json> parse_agent_json(std::string_view text)
{
	constexpr size_t most_bytes = size_t{3} << 20;
	if (text.size() > most_bytes) return std::nullopt;
	Json value = Json::parse(repair(text), nullptr, false);
	if (value.is_discarded()) return std::nullopt;
	return value;
}

std::string json_unescape(std::string_view body)
{
	if (body.find('\\') == std::string_view::npos) return std::string(body);
	std::string quoted = "\"" + std::string(body) + "\"";
	auto value = parse_agent_json(quoted);
	return value && value->is_string() ? value->get<std::string>() : std::string(body);
}

size_t json_nesting(std::string_view text)
{
	size_t depth = 0, deepest = 0;
	bool in_string = false;
	for (size_t at = 0; at < text.size(); at++) {
		char byte = text[at];
		if (in_string && byte == '\\') at++;
		if (byte == '"') in_string = !in_string;
		if (in_string) continue;
		if (byte == '[' || byte == '{') deepest = std::max(deepest, ++depth);
		if ((byte == ']' || byte == '}') && depth > 0) depth--;
	}
	return deepest;
}

} // namespace quorbit
