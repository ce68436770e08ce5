// What every target shares: a check that ends the run, and inputs cut into texts.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#define REQUIRE(condition) \
	((condition) ? (void)0 : (fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition), abort()))

// Reads a C string to its end, which the sanitizer watches; null is none.
inline void read_whole(const char *text)
{
	while (text && *(const volatile char *)text) {
		text++;
	}
}

// The text up to the next line feed (or the end), taken off the front of the input.
inline std::string take_line(std::string_view *input)
{
	std::string line(input->substr(0, input->find('\n')));
	input->remove_prefix(line.size() < input->size() ? line.size() + 1 : input->size());
	return line;
}

// "name=value&...", as a query has them.
using Params = std::map<std::string, std::string, std::less<>>;
inline Params read_params(std::string_view text)
{
	Params params;
	while (!text.empty()) {
		std::string_view pair = text.substr(0, text.find('&'));
		text.remove_prefix(std::min(text.size(), pair.size() + 1));
		size_t equals = std::min(pair.find('='), pair.size());
		params[std::string(pair.substr(0, equals))] = pair.substr(std::min(equals + 1, pair.size()));
	}
	return params;
}

// A C string in a block of exactly its size, so that the sanitizer sees one byte too many.
struct CText {
	explicit CText(std::string_view bytes) : text(strndup(bytes.data(), bytes.size()), free) {}
	operator char *() const { return text.get(); }
	std::string str() const { return text.get(); }
	std::unique_ptr<char, decltype(&free)> text;
};
