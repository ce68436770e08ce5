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

/* The next "<" at or behind `at`, or null. */
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

const char *rum_pos(const char *buf, size_t length)
{
	const char *end = end_of_search(buf, length);
	for (const char *at = next_tag(buf, end); at; at = next_tag(at + 1, end)) {
		if (begins_with(at, end, "</head>")) {
			return at;
		}
		if (begins_with(at, end, "</title>")) {
			return at + sizeof("</title>") - 1;
		}
	}
	return NULL;
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
