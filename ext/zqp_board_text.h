/* Texts fit for the board, which others read: statements without their values, URLs without what may be secret in them.
 * A statement is copied up to its first value, which stands for itself and all that follows: finding a value's end
 * would cost more than the rest, and a wrong guess would show what must not be shown. Free of the engine. */
#ifndef ZQP_BOARD_TEXT_H
#define ZQP_BOARD_TEXT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

inline constexpr size_t ZQ_BOARD_TEXT_SIZE = 200; /* bytes: room for a text */
inline constexpr size_t ZQ_BOARD_MOST_READ = 512; /* bytes of a text that are worth handing over: more is never shown */
inline constexpr size_t ZQ_BOARD_QUICK = 48;      /* bytes of a statement that are shown while it runs */

/* What is shown of a text: so many bytes, and whether there was more. */
struct zq_board_shown {
	size_t len;
	bool is_cut;
};

/* Writes the beginning of a statement, `most` bytes of ZQ_BOARD_TEXT_SIZE, up to its first value (quoted text or a
 * number) or to what databases read differently (comments, dollar quotes), with "?" in its place. `vendor`: whose
 * database; "..." is a name for "PostgreSQL" and "Oracle", and no value. */
zq_board_shown zq_board_statement(
	char (&out)[ZQ_BOARD_TEXT_SIZE], size_t most, const char *text, size_t len, const char *vendor);

/* Writes the URL, `room` bytes at most, up to its query or fragment, without name and password. */
zq_board_shown zq_board_url(char *out, size_t room, const char *url, size_t len);

/* The bytes after which a digit belongs to a name or a parameter. */
struct zq_board_bytes {
	bool has[256];
};
consteval zq_board_bytes zq_board_name_bytes()
{
	zq_board_bytes bytes = {};
	for (int ch = 0; ch < 256; ch++) {
		bytes.has[ch] = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_' ||
			ch == '$' || ch >= 0x80;
	}
	return bytes;
}
inline constexpr zq_board_bytes zq_board_continue_name = zq_board_name_bytes();

#ifdef __SSE2__
/* 16 bytes that are kept, and as many that are not. */
struct zq_board_masks {
	unsigned char bytes[32];
};
consteval zq_board_masks zq_board_make_masks()
{
	zq_board_masks masks = {};
	for (size_t i = 0; i < 16; i++) {
		masks.bytes[i] = 0xFF;
	}
	return masks;
}
inline constexpr zq_board_masks zq_board_kept = zq_board_make_masks();

static inline __m128i zq_board_load(const void *at)
{
	return _mm_loadu_si128((const __m128i *)at);
}

/* All of a text of fewer than 16 bytes, and zeroes; not a byte behind it is read. */
static inline __m128i zq_board_load_short(const char *text, size_t len)
{
	uint64_t first, last;
	uint32_t low, high;
	if (len >= 8) {
		memcpy(&first, text, 8);
		memcpy(&last, text + len - 8, 8);
		return _mm_set_epi64x((long long)(len > 8 ? last >> (8 * (16 - len)) : 0), (long long)first);
	}
	if (len >= 4) {
		memcpy(&low, text, 4);
		memcpy(&high, text + len - 4, 4);
		return _mm_cvtsi64_si128((long long)(low | (uint64_t)high << (8 * (len - 4))));
	}
	first = 0;
	for (size_t i = 0; i < len; i++) {
		first |= (uint64_t)(unsigned char)text[i] << (8 * i);
	}
	return _mm_cvtsi64_si128((long long)first);
}

/* Bits of the bytes that need a look: " # $ % & ' and - . / and the digits. The comparison is a signed one: each range
 * is moved to the end of the numbers. */
static inline unsigned zq_board_marks(__m128i bytes)
{
	__m128i quotes = _mm_cmpgt_epi8(_mm_add_epi8(bytes, _mm_set1_epi8(127 - '\'')), _mm_set1_epi8(127 - 6));
	__m128i digits = _mm_cmpgt_epi8(_mm_add_epi8(bytes, _mm_set1_epi8(127 - '9')), _mm_set1_epi8(127 - 13));
	return (unsigned)_mm_movemask_epi8(_mm_or_si128(quotes, digits));
}

enum zq_board_found { ZQ_BOARD_NO_VALUE, ZQ_BOARD_VALUE, ZQ_BOARD_UNCLEAR };

/* 16 bytes of a text, those at `at`, to `out`, unless there is a value among them: those before it, then, and `*end` is
 * where it is. Not a byte of a value is written, not even beyond what is said to be text. */
static inline __attribute__((always_inline)) zq_board_found zq_board_step(
	char *out, __m128i bytes, const char *text, size_t at, size_t *end)
{
	for (unsigned marks = zq_board_marks(bytes); __builtin_expect(marks != 0, 0); marks &= marks - 1) {
		const unsigned bit = (unsigned)__builtin_ctz(marks);
		const char *marked = text + at + bit;
		const unsigned ch = (unsigned char)*marked;
		if (ch - '0' < 10u ? !zq_board_continue_name.has[(unsigned char)marked[-1]] : ch == '\'') {
			_mm_storeu_si128(
				(__m128i *)(out + at), _mm_and_si128(bytes, zq_board_load(zq_board_kept.bytes + 16 - bit)));
			*end = at + bit;
			return ZQ_BOARD_VALUE;
		}
		if (ch - '0' >= 10u && ch != '.') {
			return ZQ_BOARD_UNCLEAR;
		}
	}
	_mm_storeu_si128((__m128i *)(out + at), bytes);
	return ZQ_BOARD_NO_VALUE;
}

/* The first ZQ_BOARD_QUICK bytes of a statement that begins with a word, as zq_board_statement() shows them, in a few
 * dozen instructions: three steps of 16 bytes, of which the last may overlap the one before. False: this text takes
 * longer. */
static inline __attribute__((always_inline)) bool zq_board_quick_statement(
	char (&out)[ZQ_BOARD_TEXT_SIZE], const char *text, size_t len, zq_board_shown *shown)
{
	zq_board_found found;
	size_t end = 0;
	if (__builtin_expect(len >= ZQ_BOARD_QUICK, 1)) {
		found = zq_board_step(out, zq_board_load(text), text, 0, &end);
		if (found == ZQ_BOARD_NO_VALUE) {
			found = zq_board_step(out, zq_board_load(text + 16), text, 16, &end);
		}
		if (found == ZQ_BOARD_NO_VALUE) {
			found = zq_board_step(out, zq_board_load(text + 32), text, 32, &end);
		}
	} else if (len >= 16) {
		size_t at = 0;
		while ((found = zq_board_step(out, zq_board_load(text + at), text, at, &end)) == ZQ_BOARD_NO_VALUE &&
			at + 16 < len) {
			at = at + 32 <= len ? at + 16 : len - 16;
		}
	} else {
		found = zq_board_step(out, zq_board_load_short(text, len), text, 0, &end);
	}
	if (found == ZQ_BOARD_NO_VALUE) {
		*shown = {len < ZQ_BOARD_QUICK ? len : ZQ_BOARD_QUICK, len > ZQ_BOARD_QUICK};
		return true;
	}
	out[end] = '?';
	*shown = {end + 1, true};
	return found == ZQ_BOARD_VALUE;
}
#else
static inline bool zq_board_quick_statement(char (&)[ZQ_BOARD_TEXT_SIZE], const char *, size_t, zq_board_shown *)
{
	return false;
}
#endif

#endif
