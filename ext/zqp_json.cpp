/* Engine values as JSON text. What cannot be written faithfully is written as less (a text cut at its bad byte, null),
 * and nothing that is read is changed, not even the mark that the engine's own encoders leave in a table. */
#include "zqp_json.h"

#include "zqp_json_text.h"

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

/* ---- text ---------------------------------------------------------------------------------------------------------
 */

void json_escape_string(smart_str *buf, const char *s, size_t len, int add_quote)
{
	if (add_quote) {
		zq_append_char(buf, '"');
	}
	if (s) {
		zq_append_json_body(buf, s, strnlen(s, len));
	}
	if (add_quote) {
		zq_append_char(buf, '"');
	}
}

int zq_json_keeps(const char *s, size_t len)
{
	unsigned code_point;
	for (size_t i = 0; i < len;) {
		size_t size = (unsigned char)s[i] < 128 ? 1 : zq_decode_utf8(s + i, len - i, &code_point);
		if (!size) {
			return 0;
		}
		i += size;
	}
	return 1;
}

/* ---- values -------------------------------------------------------------------------------------------------------
 */

static void append_value(smart_str *buf, zval *val, int option, const enclosing *outer TSRMLS_DC);

static void append_double(smart_str *buf, double number)
{
	char text[32];
	int len = zend_finite(number) ? snprintf(text, sizeof(text), "%.9g", number) : snprintf(text, sizeof(text), "0");
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

static bool has_string_key(const HashTable *table)
{
	for (const Bucket *at = table->pListHead; at; at = at->pListNext) {
		if (at->nKeyLength) {
			return true;
		}
	}
	return false;
}

static int key_is(const Bucket *at, const char *key, uint key_size)
{
	return at->nKeyLength == key_size && memcmp(at->arKey, key, key_size) == 0;
}

/* Keys that no object shows: empty ones and the engine's names of private and protected properties; what option 1
 * leaves out. */
static bool is_hidden(const Bucket *at, int option)
{
	if (!at->nKeyLength) {
		return false;
	}
	return !at->arKey[0] ||
		(option == 1 && (key_is(at, "args", sizeof("args")) || key_is(at, "object", sizeof("object"))));
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
static bool may_descend(const smart_str *buf, const HashTable *table, const enclosing *outer)
{
	if (outer && (outer->depth >= MAX_DEPTH || buf->len - outer->start > MAX_VALUE_BYTES)) {
		return false;
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
	case IS_LONG: zq_append_long(buf, Z_LVAL_P(val)); break;
	case IS_DOUBLE: append_double(buf, Z_DVAL_P(val)); break;
	case IS_BOOL: zq_append_text(buf, Z_BVAL_P(val) ? "true" : "false"); break;
	case IS_ARRAY:
	case IS_OBJECT: append_array(buf, val, option, outer TSRMLS_CC); break;
	case IS_STRING: json_escape_string(buf, Z_STRVAL_P(val), Z_STRLEN_P(val), 1); break;
	default: zq_append(buf, "null", 4);
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

/* ---- rows of a query plan -----------------------------------------------------------------------------------------
 */

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
