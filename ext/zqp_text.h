/* Comparing and reading text by ASCII rules, whatever locale the script has set, and the bound on regular expressions.
 * Free of the engine, as is all that is built on it alone. */
#ifndef ZQP_TEXT_H
#define ZQP_TEXT_H

#include <limits.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

static inline char zq_ascii_lower(char ch)
{
	return ch >= 'A' && ch <= 'Z' ? (char)(ch + ('a' - 'A')) : ch;
}

static inline char zq_ascii_upper(char ch)
{
	return ch >= 'a' && ch <= 'z' ? (char)(ch - ('a' - 'A')) : ch;
}

/* Below, at or above 0 as the first `len` bytes of `a`, or those up to a common end, sort before, with or after `b`'s.
 */
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

static inline int zq_equals_ignoring_case(const char *a, const char *b)
{
	return a && strlen(a) == strlen(b) && zq_strncasecmp(a, b, strlen(b)) == 0;
}

/* Just after the first ".php" of any case, borrowed; null when there is none, or nothing but that. */
static inline const char *zq_php_pos(const char *string, int length)
{
	const int suffix_len = sizeof(".php") - 1;
	if (!string || length <= suffix_len) {
		return NULL;
	}
	for (int i = 0; i + suffix_len <= length; i++) {
		if (zq_strncasecmp(string + i, ".php", suffix_len) == 0) {
			return string + i + suffix_len;
		}
	}
	return NULL;
}

/* Leading decimal number, clamped to an int; 0 without one. */
static inline int zq_leading_int(const char *text)
{
	long number = strtol(text, NULL, 10);
	return number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : (int)number;
}

/* A setting as a number: "true" of any case is 1, else the leading decimal number, 0 without one or for null. */
static inline int zq_str_to_int(const char *str)
{
	if (!str) {
		return 0;
	}
	return zq_equals_ignoring_case(str, "true") ? 1 : zq_leading_int(str);
}

/* Takes the next piece off `rest`: what is between separators, without leading bytes of 128 and above, and not
 * empty. False when none is left. */
static inline bool zq_next_piece(std::string_view *rest, const char *separators, std::string_view *piece)
{
	while (!rest->empty()) {
		size_t end = rest->find_first_of(separators), len = end < rest->size() ? end : rest->size();
		*piece = std::string_view(rest->data(), len);
		rest->remove_prefix(len < rest->size() ? len + 1 : len);
		while (!piece->empty() && (unsigned char)(*piece)[0] >= 128) {
			piece->remove_prefix(1);
		}
		if (!piece->empty()) {
			return true;
		}
	}
	return false;
}

/* zqp_helper_regex.cpp */
/* No pattern is held against more bytes of a text. */
static const size_t ZQ_REGEX_MOST_BYTES = 8192;
/* How many bytes of a text a pattern is held against, so that no text takes more than milliseconds:
 * ZQ_REGEX_MOST_BYTES, fewer for a large pattern with many choices. 0 when it is refused: longer than 1,024 bytes,
 * groups deeper than 64, bounded repeats that multiply to more than 1,000, more than some 6,000 characters and choices
 * once they are unfolded, a reference back to a group. */
size_t zq_regex_examined_len(const char *pattern);
/* What is told of a pattern that will not do what its author meant: with that number and the pattern, or refused, with
 * the pattern alone. */
inline constexpr char ZQ_REGEX_BOUNDED[] = "regular expression looks at the first %zu bytes of a text only: %.1024s";
inline constexpr char ZQ_REGEX_REFUSED[] = "regular expression is not used, because it could take long: %.1024s";
/* 1 when the pattern (POSIX extended syntax and GNU's escapes, by bytes, ignoring the case of ASCII letters, "." and
 * negated brackets without line ends) matches somewhere in that beginning of the text; else 0, as for a pattern that is
 * refused or wrong. "$" does not match at the cut. */
int zq_regex_matches(const char *subject, const char *pattern);

#endif
