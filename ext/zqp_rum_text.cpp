/* Searching a piece of a page for the tags that matter, and escaping for scripts. */
#include "zqp_rum_text.h"

#include "zqp_text.h"

/* 1 when the text at `at` begins with `word`, lower-case letters, in any case. */
static int begins_with(const char *at, const char *end, const char *word)
{
	size_t word_len = strlen(word);
	return (size_t)(end - at) >= word_len && zq_strncasecmp(at, word, word_len) == 0;
}

static const char *end_of_search(const char *buf, size_t length)
{
	return buf + (length < ZQ_RUM_EXAMINED_BYTES ? length : ZQ_RUM_EXAMINED_BYTES);
}

/* The next "<" at or after `at`, or null. */
static const char *next_tag(const char *at, const char *end)
{
	return at < end ? (const char *)memchr(at, '<', (size_t)(end - at)) : NULL;
}

const char *html_pos(const char *buf, size_t length)
{
	const char *end = end_of_search(buf, length);
	for (const char *at = next_tag(buf, end); at; at = next_tag(at + 1, end)) {
		const char *behind = at + sizeof("<html") - 1;
		if (!begins_with(at, end, "<html") || behind == end) {
			continue;
		}
		if (*behind == '>') {
			return behind;
		}
		if (*behind == '\t' || *behind == '\n' || *behind == '\r' || *behind == ' ') {
			return (const char *)memchr(behind, '>', (size_t)(end - behind)); /* no other tag ends either, if null */
		}
	}
	return NULL;
}

/* ---- what a place in the page lies in ---- */

/* By zq_page_part. */
static const char *const beginnings[] = {"", "<title", "<script", "<style", "<textarea", "<!--"};
static const char *const ends[] = {"", "</title", "</script", "</style", "</textarea", "-->"};

enum found { ABSENT, CUT, WHOLE };

/* Whether the text begins with this tag: a name with what may follow one. */
static found find_tag(const char *at, const char *end, const char *tag)
{
	size_t len = strlen(tag), left = (size_t)(end - at);
	if (zq_strncasecmp(at, tag, left < len ? left : len) != 0) {
		return ABSENT;
	}
	int is_name = tag[len - 1] != '-' && tag[len - 1] != '>';
	if (left < len + (size_t)is_name) {
		return CUT;
	}
	return !is_name || (at[len] && strchr(" \t\r\n\f/>", at[len])) ? WHOLE : ABSENT;
}

/* Changes the part when a tag at `at` does so. Returns how many bytes belong to nothing else, 0 for a tag that is cut.
 */
static size_t pass_tag(zq_page_place *page, const char *at, const char *end)
{
	int in_markup = page->part == ZQ_IN_MARKUP;
	char first = in_markup ? (char)ZQ_IN_TITLE : page->part, last = in_markup ? (char)ZQ_IN_COMMENT : page->part;
	for (char part = first; part <= last; part++) {
		found found = find_tag(at, end, (in_markup ? beginnings : ends)[(int)part]);
		if (found == WHOLE) {
			page->part = in_markup ? part : (char)ZQ_IN_MARKUP;
			return 2; /* the dashes that begin a comment may be those that end it: "<!-->" */
		}
		if (found == CUT) {
			return 0;
		}
	}
	return 1;
}

/* Follows the page through the tags that begin in front of `limit`. Returns where it stopped, at most 2 bytes behind
 * `limit`; a tag that `end` cuts is kept, and `end` is where it stopped then. */
static const char *follow_page(zq_page_place *page, const char *at, const char *limit, const char *end)
{
	while (at < limit) {
		const char *next = (const char *)memchr(at, page->part == ZQ_IN_COMMENT ? '-' : '<', (size_t)(limit - at));
		if (!next) {
			return limit;
		}
		size_t passed = pass_tag(page, next, end);
		if (!passed) {
			page->tail_len = (char)(end - next);
			memcpy(page->tail, next, (size_t)(end - next));
			return end;
		}
		at = next + passed;
	}
	return at;
}

/* The tag that the last piece cut, with the beginning of this one. Returns where the rest of this one begins. */
static const char *follow_cut_tag(zq_page_place *page, const char *buf, const char *end)
{
	char joined[2 * sizeof(page->tail)];
	size_t tail_len = (size_t)page->tail_len, more = (size_t)(end - buf);
	more = more < sizeof(page->tail) ? more : sizeof(page->tail);
	memcpy(joined, page->tail, tail_len);
	memcpy(joined + tail_len, buf, more);
	page->tail_len = 0;
	const char *at = follow_page(page, joined, joined + tail_len, joined + tail_len + more);
	return buf + (at - (joined + tail_len));
}

/* The place at this "<", or null. */
static const char *place_at(const char *at, const char *end)
{
	if (begins_with(at, end, "</head>")) {
		return at;
	}
	return begins_with(at, end, "</title>") ? at + sizeof("</title>") - 1 : NULL;
}

const char *rum_pos(const char *buf, size_t length, zq_page_place *page)
{
	const char *end = end_of_search(buf, length), *place = NULL;
	const char *at = page && page->tail_len ? follow_cut_tag(page, buf, end) : buf;
	for (const char *tag = next_tag(buf, end); tag; tag = next_tag(tag + 1, end)) {
		if (page) {
			at = at < tag ? follow_page(page, at, tag, end) : at;
		}
		if (!place && (!page || (at <= tag && page->part <= ZQ_IN_TITLE))) {
			place = place_at(tag, end);
		}
	}
	if (page && at < end) {
		follow_page(page, at, end, end);
	}
	return place;
}

size_t zq_rum_escape(char out[ZQ_RUM_ESCAPE_SIZE], char ch)
{
	static const char digits[] = "0123456789abcdef";
	unsigned char byte = (unsigned char)ch;
	if (byte >= ' ' && !strchr("'\\<>", ch)) {
		out[0] = ch;
		return 1;
	}
	memcpy(out, "\\u00", 4);
	out[4] = digits[byte >> 4];
	out[5] = digits[byte & 15];
	return ZQ_RUM_ESCAPE_SIZE;
}
