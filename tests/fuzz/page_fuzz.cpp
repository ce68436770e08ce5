// The scanners of page text and the escaping for scripts, against plain descriptions of what they do.
// sources: ext/zqp_rum_text.cpp
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zqp_rum_text.h"

#define REQUIRE(condition) ((condition) ? (void)0 : abort())

namespace {

constexpr size_t NONE = std::string::npos;

std::string lowered(const std::string &text)
{
	std::string lower = text.substr(0, ZQ_RUM_EXAMINED_BYTES);
	for (char &ch : lower) {
		ch = ch >= 'A' && ch <= 'Z' ? (char)(ch + 32) : ch;
	}
	return lower;
}

size_t end_of_html_tag(const std::string &lower)
{
	for (size_t at = 0; (at = lower.find("<html", at)) != NONE; at += 5) {
		if (at + 5 < lower.size() && std::string(">\t\n\r ").find(lower[at + 5]) != NONE) {
			return lower.find('>', at + 5);
		}
	}
	return NONE;
}

size_t place_of_script(const std::string &lower)
{
	size_t head = lower.find("</head>"), title = lower.find("</title>");
	return title < head ? title + 8 : head;
}

size_t offset(const char *base, const char *at)
{
	return at ? (size_t)(at - base) : NONE;
}

// Read as a browser reads what stands between the quotes.
std::string unescaped(const std::string &written)
{
	std::string text;
	for (size_t at = 0; at < written.size(); at++) {
		REQUIRE((unsigned char)written[at] >= ' ' && std::string("'<>").find(written[at]) == NONE);
		if (written[at] != '\\') {
			text += written[at];
			continue;
		}
		REQUIRE(at + 5 < written.size() && written.compare(at, 4, "\\u00") == 0);
		text += (char)std::stoi(written.substr(at + 4, 2), nullptr, 16);
		at += 5;
	}
	return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const char *page = (const char *)data; // libFuzzer's own block, of exactly this size
	std::string text(page, size), lower = lowered(text);
	REQUIRE(offset(page, html_pos(page, size)) == end_of_html_tag(lower));
	REQUIRE(offset(page, rum_pos(page, size)) == place_of_script(lower));

	std::string written;
	for (char ch : text) {
		char out[ZQ_RUM_ESCAPE_SIZE];
		written.append(out, zq_rum_escape(out, ch));
	}
	REQUIRE(unescaped(written) == text);
	return 0;
}
