/* JSON is written by appending text to growing buffers, never by building trees. */
#ifndef ZQP_JSON_H
#define ZQP_JSON_H

#include "zqp_helper.h"

/* Appends `s` (up to `len` bytes or its first NUL) as a JSON string body, in double quotes when `add_quote`. The text
 * is cut at the first byte that is not valid UTF-8; "/" stays plain; control characters without a short form stay raw.
 * A null or empty text gives "" in quotes, or nothing without them. */
void json_escape_string(smart_str *buf, const char *s, size_t len, int add_quote);
/* 1 when json_escape_string() would append the text to its end. */
int zq_json_keeps(const char *s, size_t len);
/* Appends any value. Option 1 hides the keys "args" and "object" of arrays. What is circular, deeper than 64, behind
 * 16 MiB of text or an object without a property table of its own is null. The value is not touched. */
void zq_json_encode(smart_str *buf, zval *val, int option TSRMLS_DC);
/* Appends an array or an object's property table: an object when any key is a string, else a list. */
void json_encode_array(smart_str *buf, zval *val, int option TSRMLS_DC);
/* One row of a query plan as two parallel lists: its column names, its values; "null" for anything else. */
void zq_get_explain_header_json(smart_str *buf, zval *val TSRMLS_DC);
void zq_get_explain_object_json(smart_str *buf, zval *val TSRMLS_DC);

#endif
