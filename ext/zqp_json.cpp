/* Engine values as JSON text. What cannot be written faithfully is written as less (a text cut at its bad byte, null),
 * and nothing that is read is changed, not even the mark that the engine's own encoders leave in a table. */
#include "zqp_json.h"

enum {
	MAX_DEPTH = 64,
	MAX_VALUE_BYTES = 16 << 20 /* no record can be longer; small values that share parts can unfold to any size */
};

/* The tables around the value being written. They live on the C stack, so that a bailout leaves nothing behind. */
typedef struct enclosing {
	const struct enclosing *outer;
	const HashTable *table;
	int depth;    /* of this table; the outermost is 1 */
	size_t start; /* of the outermost table in the buffer */
} enclosing;

/* ---- text --------------------------------------------------------------------------------------------------------- */

/* Code point at `s` and the number of its bytes; 0 when the bytes are malformed, overlong, cut off or a surrogate. */
static size_t decode_utf8(const char *s, size_t len, unsigned *code_point)
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

static void append_unit(smart_str *buf, unsigned unit)
{
	static const char hex[] = "0123456789abcdef";
	const char text[] = {'\\', 'u', hex[unit >> 12 & 15], hex[unit >> 8 & 15], hex[unit >> 4 & 15], hex[unit & 15]};
	zq_append(buf, text, sizeof text);
}

static void append_code_point(smart_str *buf, unsigned code_point)
{
	if (code_point <= 0xFFFF) {
		append_unit(buf, code_point);
		return;
	}
	/* from the low 16 bits, without taking 0x10000 off first: what the receiver expects */
	append_unit(buf, (code_point & 0xFFFF) >> 10 | 0xD800);
	append_unit(buf, (code_point & 0x3FF) | 0xDC00);
}

/* Second character of an ASCII character's escape, 0 when it is written as it is. */
static char short_escape(char ch)
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

static void append_body(smart_str *buf, const char *s, size_t len)
{
	size_t plain = 0; /* start of what is still to be copied as it is */
	for (size_t i = 0; i < len;) {
		char escape = short_escape(s[i]);
		if ((unsigned char)s[i] < 128 && !escape) {
			i++;
			continue;
		}
		zq_append(buf, s + plain, i - plain);
		if (escape) {
			const char text[] = {'\\', escape};
			zq_append(buf, text, sizeof text);
			i++;
		} else {
			unsigned code_point;
			size_t size = decode_utf8(s + i, len - i, &code_point);
			if (!size) {
				return;
			}
			append_code_point(buf, code_point);
			i += size;
		}
		plain = i;
	}
	zq_append(buf, s + plain, len - plain);
}

void json_escape_string(smart_str *buf, const char *s, size_t len, int add_quote)
{
	if (add_quote) {
		zq_append_char(buf, '"');
	}
	if (s) {
		append_body(buf, s, strnlen(s, len));
	}
	if (add_quote) {
		zq_append_char(buf, '"');
	}
}

/* ---- values ------------------------------------------------------------------------------------------------------- */

static void append_value(smart_str *buf, zval *val, int option, const enclosing *outer TSRMLS_DC);

static void append_double(smart_str *buf, double number)
{
	char text[32];
	int len = zend_finite(number) ? snprintf(text, sizeof text, "%.9g", number) : snprintf(text, sizeof text, "0");
	int written = 0;
	for (int i = 0; i < len; i++) {
		int ours = (text[i] >= '0' && text[i] <= '9') || text[i] == '-' || text[i] == '+' || text[i] == 'e';
		if (ours) {
			text[written++] = text[i];
		} else if (written && text[written - 1] != '.') {
			text[written++] = '.'; /* the script's locale may have another decimal point, of several bytes */
		}
	}
	zq_append(buf, text, written);
}

static int has_string_key(const HashTable *table)
{
	for (const Bucket *at = table->pListHead; at; at = at->pListNext) {
		if (at->nKeyLength) {
			return 1;
		}
	}
	return 0;
}

static int key_is(const Bucket *at, const char *key, uint key_size)
{
	return at->nKeyLength == key_size && memcmp(at->arKey, key, key_size) == 0;
}

/* Keys that no object shows: empty ones and the engine's names of private and protected properties; what option 1
 * leaves out. */
static int is_hidden(const Bucket *at, int option)
{
	if (!at->nKeyLength) {
		return 0;
	}
	return !at->arKey[0] || (option == 1 && (key_is(at, "args", sizeof("args")) || key_is(at, "object", sizeof("object"))));
}

static void append_table(smart_str *buf, const HashTable *table, int option, const enclosing *here TSRMLS_DC)
{
	int as_object = has_string_key(table), first = 1;
	zq_append_char(buf, as_object ? '{' : '[');
	for (const Bucket *at = table->pListHead; at; at = at->pListNext) {
		if (is_hidden(at, option)) {
			continue;
		}
		if (!first) {
			zq_append_char(buf, ',');
		}
		first = 0;
		if (at->nKeyLength) {
			json_escape_string(buf, at->arKey, at->nKeyLength - 1, 1);
			zq_append_char(buf, ':');
		}
		append_value(buf, *(zval **)at->pData, option, here TSRMLS_CC);
	}
	zq_append_char(buf, as_object ? '}' : ']');
}

/* 1 when the table can be written inside `outer`: not around itself, not too deep, not after too much text. */
static int may_descend(const smart_str *buf, const HashTable *table, const enclosing *outer)
{
	if (outer && (outer->depth >= MAX_DEPTH || buf->len - outer->start > MAX_VALUE_BYTES)) {
		return 0;
	}
	while (outer && outer->table != table) {
		outer = outer->outer;
	}
	return !outer;
}

static HashTable *table_of(zval *val TSRMLS_DC)
{
	return Z_TYPE_P(val) == IS_ARRAY ? Z_ARRVAL_P(val) : zq_property_table(val TSRMLS_CC);
}

static void append_array(smart_str *buf, zval *val, int option, const enclosing *outer TSRMLS_DC)
{
	HashTable *table = val ? table_of(val TSRMLS_CC) : NULL;
	if (!table || !may_descend(buf, table, outer)) {
		zq_append(buf, "null", 4);
		return;
	}
	enclosing here = {outer, table, outer ? outer->depth + 1 : 1, outer ? outer->start : buf->len};
	append_table(buf, table, option, &here TSRMLS_CC);
}

static void append_value(smart_str *buf, zval *val, int option, const enclosing *outer TSRMLS_DC)
{
	switch (val ? Z_TYPE_P(val) : IS_NULL) {
		case IS_LONG:
			zq_append_long(buf, Z_LVAL_P(val));
			break;
		case IS_DOUBLE:
			append_double(buf, Z_DVAL_P(val));
			break;
		case IS_BOOL:
			zq_append_text(buf, Z_BVAL_P(val) ? "true" : "false");
			break;
		case IS_ARRAY:
		case IS_OBJECT:
			append_array(buf, val, option, outer TSRMLS_CC);
			break;
		case IS_STRING:
			json_escape_string(buf, Z_STRVAL_P(val), Z_STRLEN_P(val), 1);
			break;
		default:
			zq_append(buf, "null", 4);
	}
}

void zq_json_encode(smart_str *buf, zval *val, int option TSRMLS_DC)
{
	append_value(buf, val, option, NULL TSRMLS_CC);
}

void json_encode_array(smart_str *buf, zval *val, int option TSRMLS_DC)
{
	append_array(buf, val, option, NULL TSRMLS_CC);
}

/* ---- rows of a query plan ----------------------------------------------------------------------------------------- */

/* Names or values of a row's string-keyed columns; both lists leave out the same ones and stay aligned. */
static void append_columns(smart_str *buf, zval *row, int names TSRMLS_DC)
{
	HashTable *columns = row ? table_of(row TSRMLS_CC) : NULL;
	if (!columns) {
		zq_append(buf, "null", 4);
		return;
	}
	zq_append_char(buf, '[');
	int first = 1;
	for (const Bucket *at = columns->pListHead; at; at = at->pListNext) {
		if (!at->nKeyLength) {
			continue;
		}
		if (!first) {
			zq_append_char(buf, ',');
		}
		first = 0;
		if (names) {
			json_escape_string(buf, at->arKey, at->nKeyLength - 1, 1);
		} else {
			zq_json_encode(buf, *(zval **)at->pData, 1 TSRMLS_CC);
		}
	}
	zq_append_char(buf, ']');
}

void zq_get_explain_header_json(smart_str *buf, zval *val TSRMLS_DC)
{
	append_columns(buf, val, 1 TSRMLS_CC);
}

void zq_get_explain_object_json(smart_str *buf, zval *val TSRMLS_DC)
{
	append_columns(buf, val, 0 TSRMLS_CC);
}
