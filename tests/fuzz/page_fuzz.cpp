// The scanners of page text and the escaping for scripts.
// sources: ext/zqp_rum_text.cpp
#include "require.h"
#include "zqp_rum_text.h"

namespace {

// Read as a browser reads what stands between the quotes.
std::string unescaped(const std::string &written)
{
	std::string text;
	for (size_t at = 0; at < written.size(); at++) {
		REQUIRE((unsigned char)written[at] >= ' ' && std::string("'<>").find(written[at]) == std::string::npos);
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

// A page in two pieces is read as it is in one, wherever it is cut.
void check_parts(const char *page, size_t size)
{
	zq_page_place whole = {};
	const char *place = rum_pos(page, size, &whole);
	REQUIRE(!place || (place >= page && place <= page + size));
	for (size_t cut = 0; cut <= size && size < 200; cut++) {
		zq_page_place again = {};
		rum_pos(page, cut, &again);
		std::string rest(page + cut, size - cut);
		rum_pos(rest.data(), rest.size(), &again);
		REQUIRE(memcmp(&again, &whole, offsetof(zq_page_place, tail)) == 0);
		REQUIRE(memcmp(again.tail, whole.tail, (size_t)whole.tail_len) == 0);
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const char *page = (const char *)data; // libFuzzer's own block, of exactly this size
	std::string text(page, size);
	const char *html = html_pos(page, size), *place = rum_pos(page, size, NULL);
	REQUIRE(!html || *html == '>');
	REQUIRE(!place || (place >= page && place <= page + size));
	check_parts(page, size);

	std::string written;
	for (char ch : text) {
		char out[ZQ_RUM_ESCAPE_SIZE];
		written.append(out, zq_rum_escape(out, ch));
	}
	REQUIRE(unescaped(written) == text);
	return 0;
}
