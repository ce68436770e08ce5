/* Text as the body of a JSON string, for any buffer that has a zq_append(Buffer *, const char *, size_t). Free of the
 * engine. */
#ifndef ZQP_JSON_TEXT_H
#define ZQP_JSON_TEXT_H

#include <stddef.h>
#include <string.h>

/* Code point at `s` and the number of its bytes; 0 when the bytes are malformed, overlong, cut off or a surrogate. */
static inline size_t zq_decode_utf8(const char *s, size_t len, unsigned *code_point)
{
	static const unsigned smallest_of_size[] = {0, 0, 0x80, 0x800, 0x10000};
	unsigned char lead = (unsigned char)*s;
	size_t size = lead >= 0xF0 && lead <= 0xF4 ? 4 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xE0) == 0xC0 ? 2 : 0;
	if (!size || size > len) {
		return 0;
	}
	unsigned code = lead & (0x7F >> size);
	for (size_t i = 1; i < size; i++) {
		if ((s[i] & 0xC0) != 0x80) {
			return 0;
		}
		code = code << 6 | (s[i] & 0x3F);
	}
	if (code < smallest_of_size[size] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
		return 0;
	}
	*code_point = code;
	return size;
}

template <typename Buffer>
void zq_append_json_unit(Buffer *buf, unsigned unit)
{
	static const char hex[] = "0123456789abcdef";
	const char text[] = {'\\', 'u', hex[unit >> 12 & 15], hex[unit >> 8 & 15], hex[unit >> 4 & 15], hex[unit & 15]};
	zq_append(buf, text, sizeof(text));
}

template <typename Buffer>
void zq_append_json_code_point(Buffer *buf, unsigned code_point)
{
	if (code_point <= 0xFFFF) {
		zq_append_json_unit(buf, code_point);
		return;
	}
	/* from the low 16 bits, without taking 0x10000 off first: what the receiver expects */
	zq_append_json_unit(buf, (code_point & 0xFFFF) >> 10 | 0xD800);
	zq_append_json_unit(buf, (code_point & 0x3FF) | 0xDC00);
}

/* Second character of an ASCII character's escape, 0 when it is written as it is. */
static inline char zq_json_short_escape(char ch)
{
	switch (ch) {
	case '\b': return 'b';
	case '\t': return 't';
	case '\n': return 'n';
	case '\f': return 'f';
	case '\r': return 'r';
	case '"':
	case '\\': return ch;
	default: return 0;
	}
}

/* Appends `len` bytes of text, none of them NUL, as the body of a JSON string; cut at the first byte that is not valid
 * UTF-8. */
template <typename Buffer>
void zq_append_json_body(Buffer *buf, const char *s, size_t len)
{
	size_t plain = 0; /* start of what is still to be copied as it is */
	for (size_t i = 0; i < len;) {
		char escape = zq_json_short_escape(s[i]);
		if ((unsigned char)s[i] < 128 && !escape) {
			i++;
			continue;
		}
		zq_append(buf, s + plain, i - plain);
		if (escape) {
			const char text[] = {'\\', escape};
			zq_append(buf, text, sizeof(text));
			i++;
		} else {
			unsigned code_point;
			size_t size = zq_decode_utf8(s + i, len - i, &code_point);
			if (!size) {
				return;
			}
			zq_append_json_code_point(buf, code_point);
			i += size;
		}
		plain = i;
	}
	zq_append(buf, s + plain, len - plain);
}

/* The character that "\u00XX" at the beginning of the text stands for, if it can stand in a line as it is; else 0. */
static inline char zq_escaped_character(const char *text, size_t len)
{
	static const char hex[] = "0123456789abcdefABCDEF";
	if (len < 6 || memcmp(text, "\\u00", 4) != 0) {
		return 0;
	}
	int code = 0;
	for (size_t i = 4; i < 6; i++) {
		const char *found = text[i] ? strchr(hex, text[i]) : NULL;
		if (!found) {
			return 0;
		}
		code = code * 16 + (int)(found - hex - (found - hex > 15 ? 6 : 0));
	}
	return code >= ' ' && code < 127 ? (char)code : 0;
}

/* Appends a text in which some characters were written as zq_append_json_unit() writes them. A backslash of any other
 * use stands for itself. */
template <typename Buffer>
void zq_append_unescaped(Buffer *buf, const char *text, size_t len)
{
	for (size_t at = 0; at < len;) {
		char escaped = zq_escaped_character(text + at, len - at);
		zq_append(buf, escaped ? &escaped : text + at, 1);
		at += escaped ? 6 : 1;
	}
}

#endif
