/* Texts for the board whose length matters more than their price. */
#include "zqp_board_text.h"

/* Whether the byte at `at` of a statement begins a value, or something that databases read differently. */
static bool is_value(const char *text, size_t at, size_t len, const char *vendor)
{
	const unsigned ch = (unsigned char)text[at];
	if (ch - '0' < 10u) {
		return at == 0 || !zq_board_continue_name.has[(unsigned char)text[at - 1]];
	}
	if (ch == '\'' || ch == '#') {
		return true;
	}
	if (ch == '"') {
		return *vendor != 'P' && *vendor != 'O';
	}
	const char next = at + 1 < len ? text[at + 1] : '\0';
	return ch == '$' ? (unsigned)(next - '0') >= 10u /* dollar quotes */
		: ch == '-'  ? next == '-'
					 : ch == '/' && next == '*';
}

zq_board_shown zq_board_statement(
	char (&out)[ZQ_BOARD_TEXT_SIZE], size_t most, const char *text, size_t len, const char *vendor)
{
	most = len < most ? len : most;
	for (size_t at = 0; at < most; at++) {
		if (is_value(text, at, len, vendor)) {
			out[at] = '?';
			return {at + 1, true};
		}
		out[at] = text[at];
	}
	return {most, most < len};
}

zq_board_shown zq_board_url(char *out, size_t room, const char *url, size_t len)
{
	const char *query = (const char *)memchr(url, '?', len), *fragment = (const char *)memchr(url, '#', len);
	const char *end = query ? query : url + len;
	end = fragment && fragment < end ? fragment : end;
	const char *colon = (const char *)memchr(url, ':', (size_t)(end - url));
	const char *host = colon && end - colon > 3 && memcmp(colon, "://", 3) == 0 ? colon + 3 : url;
	const char *slash = (const char *)memchr(host, '/', (size_t)(end - host));
	const char *at_sign = (const char *)memrchr(host, '@', (size_t)((slash ? slash : end) - host));
	const char *from = at_sign ? at_sign + 1 : host;
	size_t before = (size_t)(host - url) < room ? (size_t)(host - url) : room;
	size_t after = (size_t)(end - from) < room - before ? (size_t)(end - from) : room - before;
	memcpy(out, url, before);
	memcpy(out + before, from, after);
	return {before + after, after < (size_t)(end - from) || (!query && !fragment && len == ZQ_BOARD_MOST_READ)};
}
