// The scanners of page text and the escaping for scripts, against plain descriptions of what they do.
// sources: ext/zqp_rum_text.cpp
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
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

// As the page reads from `at` in the part: the part behind it, with the first tag of markup or title that is a place.
size_t place_of_markup(const std::string &lower, int *part)
{
	static const std::string beginnings[] = {"", "<title", "<script", "<style", "<textarea", "<!--"};
	size_t place = NONE;
	for (size_t at = 0; at < lower.size(); at++) {
		const auto stands = [&](const std::string &tag) {
			size_t behind = at + tag.size();
			bool is_name = isalpha((unsigned char)tag.back());
			return lower.compare(at, tag.size(), tag) == 0 &&
				(!is_name || (behind < lower.size() && std::string(" \t\r\n\f/>").find(lower[behind]) != NONE));
		};
		if (*part <= ZQ_IN_TITLE && place == NONE) {
			place = stands("</head>") ? at : stands("</title>") ? at + 8 : NONE;
		}
		if (*part != ZQ_IN_MARKUP) {
			*part = stands(*part == ZQ_IN_COMMENT ? "-->" : "</" + beginnings[*part].substr(1)) ? (int)ZQ_IN_MARKUP : *part;
			continue;
		}
		for (int next = ZQ_IN_TITLE; next <= ZQ_IN_COMMENT && *part == ZQ_IN_MARKUP; next++) {
			*part = stands(beginnings[next]) ? next : *part;
		}
		at += *part == ZQ_IN_COMMENT; // its dashes may be those of the end
	}
	return place;
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

// The place is that of the description, and a page in two pieces is read as it is in one, wherever it is cut.
void check_parts(const char *page, size_t size, const std::string &lower)
{
	int part = ZQ_IN_MARKUP;
	zq_page_place whole = {};
	REQUIRE(offset(page, rum_pos(page, size, &whole)) == place_of_markup(lower, &part));
	REQUIRE(whole.part == part);
	for (size_t cut = 0; cut <= size && size < 200; cut++) {
		zq_page_place place = {};
		rum_pos(page, cut, &place);
		std::string rest(page + cut, size - cut);
		rum_pos(rest.data(), rest.size(), &place);
		REQUIRE(memcmp(&place, &whole, offsetof(zq_page_place, tail)) == 0);
		REQUIRE(memcmp(place.tail, whole.tail, (size_t)whole.tail_len) == 0);
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const char *page = (const char *)data; // libFuzzer's own block, of exactly this size
	std::string text(page, size), lower = lowered(text);
	REQUIRE(offset(page, html_pos(page, size)) == end_of_html_tag(lower));
	REQUIRE(offset(page, rum_pos(page, size, NULL)) == place_of_script(lower));
	check_parts(page, size, lower);

	std::string written;
	for (char ch : text) {
		char out[ZQ_RUM_ESCAPE_SIZE];
		written.append(out, zq_rum_escape(out, ch));
	}
	REQUIRE(unescaped(written) == text);
	return 0;
}
