/* Comparing text by ASCII rules, whatever locale the script has set, and the bound on regular expressions. Free of the
 * engine, as is all that is built on it alone. */
#ifndef ZQP_TEXT_H
#define ZQP_TEXT_H

#include <stddef.h>
#include <string.h>

static inline char zq_ascii_lower(char ch)
{
	return ch >= 'A' && ch <= 'Z' ? (char)(ch + ('a' - 'A')) : ch;
}

static inline char zq_ascii_upper(char ch)
{
	return ch >= 'a' && ch <= 'z' ? (char)(ch - ('a' - 'A')) : ch;
}

/* Below, at or above 0 as the first `len` bytes of `a`, or those up to a common end, sort before, with or behind `b`'s. */
static inline int zq_strncasecmp(const char *a, const char *b, size_t len)
{
	for (size_t i = 0; i < len; i++) {
		int difference = (unsigned char)zq_ascii_lower(a[i]) - (unsigned char)zq_ascii_lower(b[i]);
		if (difference || !a[i]) {
			return difference;
		}
	}
	return 0;
}

/* First occurrence of `needle`, borrowed; null when there is none or either text is null. */
static inline const char *zq_strcasestr(const char *haystack, const char *needle)
{
	if (!haystack || !needle) {
		return NULL;
	}
	size_t needle_len = strlen(needle);
	const char *end = haystack + strlen(haystack);
	for (const char *at = haystack; (size_t)(end - at) >= needle_len; at++) {
		if (zq_strncasecmp(at, needle, needle_len) == 0) {
			return at;
		}
	}
	return NULL;
}

/* zqp_helper_regex.cpp */
/* 1 when the C library's compiler can take the pattern (extended syntax) safely: at most 1,024 bytes, groups at most 64
 * deep, nested repeats multiplying to at most 1,000, at most 3,000 atoms once they are unfolded. It crashes, or runs
 * for seconds, on others. */
int zq_regex_is_bounded(const char *pattern);

#endif
