/* A statement is copied 16 bytes at a time up to its first value, which stands for itself and all that follows: finding
 * a value's end would cost more than the rest, and a wrong guess would show what must not be shown. */
#include "zqp_board_text.h"

#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

static const size_t STEP = 16;             /* bytes */
static const size_t MOST_SHOWN = 7 * STEP; /* a long statement costs no more */
static_assert(MOST_SHOWN + STEP < ZQ_BOARD_TEXT_SIZE, "whole steps are written, and the sign for a value");

/* ---- 16 bytes ---- */

#ifdef __SSE2__
typedef __m128i step;

static inline step load(const char *text)
{
	return _mm_loadu_si128((const __m128i *)text);
}

template <typename Word>
static inline uint64_t word_at(const char *text)
{
	Word word;
	memcpy(&word, text, sizeof(word));
	return word;
}

/* The last bytes of a text, 1 to 15, and zeroes; not a byte behind them is read. */
static inline step load_last(const char *text, size_t len)
{
	if (len >= 8) {
		uint64_t high = len > 8 ? word_at<uint64_t>(text + len - 8) >> (8 * (16 - len)) : 0;
		return _mm_set_epi64x((long long)high, (long long)word_at<uint64_t>(text));
	}
	uint64_t low = len >= 4 ? word_at<uint32_t>(text) | word_at<uint32_t>(text + len - 4) << (8 * (len - 4))
							: word_at<uint8_t>(text) | word_at<uint8_t>(text + len / 2) << (8 * (len / 2)) |
			word_at<uint8_t>(text + len - 1) << (8 * (len - 1));
	return _mm_set_epi64x(0, (long long)low);
}

/* Bits of those that need a look: " # $ % & ' and - / 0 to 9. */
static inline unsigned marks_of(step bytes)
{
	/* a signed comparison is all there is: the first byte of each range becomes the least number */
	step quotes = _mm_cmplt_epi8(_mm_add_epi8(bytes, _mm_set1_epi8((char)(0x80 - '"'))), _mm_set1_epi8(-128 + 6));
	step digits = _mm_cmplt_epi8(_mm_add_epi8(bytes, _mm_set1_epi8((char)(0x80 - '/'))), _mm_set1_epi8(-128 + 11));
	step dashes = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('-'));
	return (unsigned)_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(quotes, digits), dashes));
}

static inline void store(char *out, step bytes)
{
	_mm_storeu_si128((__m128i *)out, bytes);
}

/* The first `len` of them, and zeroes. */
static inline void store_first(char *out, step bytes, size_t len)
{
	static const unsigned char kept[2 * STEP] = {
		0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
	store(out, _mm_and_si128(bytes, load((const char *)kept + STEP - len)));
}
#else
struct step {
	char bytes[STEP];
};

static inline step load_last(const char *text, size_t len)
{
	step last = {};
	memcpy(last.bytes, text, len);
	return last;
}

static inline step load(const char *text)
{
	return load_last(text, STEP);
}

static inline unsigned marks_of(const step &text)
{
	unsigned marks = 0;
	for (unsigned i = 0; i < STEP; i++) {
		char ch = text.bytes[i];
		marks |= (unsigned)((ch >= '"' && ch <= '\'') || ch == '-' || (ch >= '/' && ch <= '9')) << i;
	}
	return marks;
}

static inline void store_first(char *out, const step &text, size_t len)
{
	memcpy(out, text.bytes, len);
}

static inline void store(char *out, const step &text)
{
	store_first(out, text, STEP);
}
#endif

/* ---- statements ---- */

static inline bool is_digit(char ch)
{
	return (unsigned char)(ch - '0') < 10;
}

static inline bool is_word(char ch)
{
	return (unsigned char)((ch | 0x20) - 'a') < 26 || is_digit(ch) || ch == '_' || (ch & 0x80);
}

/* Whether a byte that needed a look begins a value, or something that databases read differently. */
static inline bool ends_text(const char *at, const char *begin, const char *end, bool quotes_are_names)
{
	if (is_digit(*at)) {
		return at == begin || (!is_word(at[-1]) && at[-1] != '$'); /* else it belongs to a name or parameter */
	}
	char next = at + 1 < end ? at[1] : '\0';
	switch (*at) {
	case '"': return !quotes_are_names;
	case '$': return !is_digit(next); /* dollar quotes */
	case '-': return next == '-';
	case '/': return next == '*';
	case '%':
	case '&': return false;
	default: return true;
	}
}

/* The first of the marked bytes behind `at` that ends the text; null: none does. */
static __attribute__((noinline)) const char *first_end(
	unsigned marks, const char *at, const char *begin, const char *end, bool names)
{
	for (; marks; marks &= marks - 1) {
		const char *marked = at + __builtin_ctz(marks);
		if (ends_text(marked, begin, end, names)) {
			return marked;
		}
	}
	return NULL;
}

size_t zq_board_statement(
	char (&out)[ZQ_BOARD_TEXT_SIZE], const char *text, size_t len, bool quotes_are_names, bool *is_cut)
{
	const size_t most = len < MOST_SHOWN ? len : MOST_SHOWN;
	const char *found;
	for (size_t at = 0; at < most; at += STEP) {
		const step bytes = most - at >= STEP ? load(text + at) : load_last(text + at, most - at);
		const unsigned marks = marks_of(bytes);
		if (marks && (found = first_end(marks, text + at, text, text + len, quotes_are_names)) != NULL) {
			/* not a byte of the value is written, not even beyond what is said to be text */
			store_first(out + at, bytes, (size_t)(found - text) - at);
			out[found - text] = '?';
			*is_cut = true;
			return (size_t)(found - text) + 1;
		}
		store(out + at, bytes);
	}
	*is_cut = most < len;
	return most;
}

size_t zq_board_url(char *out, size_t room, const char *url, size_t len, bool *is_cut)
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
	*is_cut = after < (size_t)(end - from) || (!query && !fragment && len == ZQ_BOARD_MOST_READ);
	return before + after;
}
