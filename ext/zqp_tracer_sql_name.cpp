/* Cleaning of statements and the names they are listed under. Purely lexical: no parser, no case folding of the result,
 * the first match wins. */
#include "zqp_tracer.h"

#include <bit>

int isSpace(char ch)
{
	return ch >= 0x01 && ch <= 0x20;
}

/* ---- comments ---- */

struct cleaned_text {
	char *text;
	size_t len;
	int after_blank;
};

/* Each run of white space becomes one space. */
static void emit(struct cleaned_text *out, char ch)
{
	int blank = isSpace(ch);
	if (!blank || !out->after_blank) {
		out->text[out->len++] = blank ? ' ' : ch;
	}
	out->after_blank = blank;
}

/* Bytes that are looked at together: most statements are words and single spaces. */
typedef unsigned char chunk __attribute__((vector_size(16)));

/* Bytes before the first that is not zero, in memory's order; 8 when all are. */
static int leading_zero_bytes(uint64 bytes)
{
	return std::countr_zero(bytes) / 8;
}

/* How many bytes, of a chunk that ends with a NUL or is followed by another byte, come before white space other than a
 * single space, or what may begin or end a quote or comment. */
static size_t plain_bytes(const char *at)
{
	chunk here, next;
	memcpy(&here, at, sizeof(here));
	memcpy(&next, at + 1, sizeof(next));
	auto others =
		(here < ' ') | (here == '\'') | (here == '"') | (here == '-') | (here == '/') | ((here == ' ') & (next == ' '));
	uint64 halves[2];
	memcpy(halves, &others, sizeof(halves));
	return (size_t)(halves[0] ? leading_zero_bytes(halves[0]) : 8 + leading_zero_bytes(halves[1]));
}

/* Copies from `at` what needs no cleaning, and returns the position after it. The bytes up to `end` are known to be
 * there, as is room for that many. */
static const char *copy_plain(struct cleaned_text *out, const char *at, const char *end)
{
	size_t plain = sizeof(chunk);
	while (plain == sizeof(chunk) && at < end && !(out->after_blank && *at == ' ')) {
		char rest[sizeof(chunk) + 1] = {};
		const char *from =
			end - at >= (ptrdiff_t)sizeof(chunk) ? at : (const char *)memcpy(rest, at, (size_t)(end - at));
		plain = plain_bytes(from);
		memcpy(out->text + out->len, from, plain);
		at += plain;
		out->len += plain;
		out->after_blank = plain ? at[-1] == ' ' : out->after_blank;
	}
	return at;
}

/* Position after the comment that starts at `at`, which is `at` when none does. A line's comment ends before its line
 * feed; a block comment's closing "/" is any one after a "*", the opening one included. */
static const char *skip_comment(const char *at)
{
	if (at[0] == '-' && at[1] == '-') {
		return at + strcspn(at, "\n");
	}
	if (at[0] != '/' || at[1] != '*') {
		return at;
	}
	for (at += 2; *at; at++) {
		if (*at == '/' && at[-1] == '*') {
			return at + 1;
		}
	}
	return at;
}

size_t zq_clean_statement(const char *statement, size_t most, char *text)
{
	struct cleaned_text out = {text, 0, 0};
	char quote = 0;
	const char *at = statement, *end = statement + most;
	while (*(at = copy_plain(&out, at, end)) && out.len < most) {
		if (quote) {
			if (*at == quote && at[-1] != '\\') {
				quote = 0;
			}
		} else if (const char *after = skip_comment(at); after != at) {
			at = after;
			continue;
		} else if (*at == '\'' || *at == '"') {
			quote = *at;
		}
		emit(&out, *at++);
	}
	text[out.len] = '\0';
	return out.len;
}

char *rm_comment(const char *statement)
{
	size_t most = strnlen(statement, ZQ_MAX_STATEMENT);
	char *text = (char *)emalloc(most + 1);
	zq_clean_statement(statement, most, text);
	return text;
}

/* ---- names ---- */

const char *find_word(const char *token, int *token_len)
{
	char end = ' ';
	while (isSpace(*token)) {
		token++;
	}
	for (;; token++) {
		switch (*token) {
		case '(': end = ')'; continue;
		case '[': end = ']'; continue;
		case '\'':
		case '"':
		case '`': end = *token; continue;
		}
		break;
	}
	const char stop[] = {',', ' ', end, '\0'};
	*token_len = (int)strcspn(token, stop);
	return token;
}

const char *find_table(const char *stmt, const char *pre_word, int *table_len)
{
	const char *found = zq_strcasestr(stmt, pre_word);
	*table_len = 0;
	return found ? find_word(found + strlen(pre_word), table_len) : NULL;
}

const char *sub_select(const char *stmt)
{
	const char *at = zq_strcasestr(stmt, "FROM");
	if (!at) {
		return NULL;
	}
	for (at += 4; isSpace(*at); at++) {}
	if (*at != '(') {
		return NULL;
	}
	for (at++; isSpace(*at); at++) {}
	return zq_strncasecmp(at, "select", 6) == 0 ? at : NULL;
}

/* From the innermost "FROM (select", whose closing parenthesis may follow the table directly, unless it is part of a
 * name in delimiters. */
static const char *table_of_select(const char *stmt, int *table_len)
{
	const char *innermost = stmt;
	while (const char *inner = sub_select(innermost)) {
		innermost = inner;
	}
	const char *table = find_table(innermost + 6, "FROM", table_len);
	if (table && innermost != stmt && !strchr("([\"'`", table[-1])) {
		const void *closing = memchr(table, ')', (size_t)*table_len);
		*table_len = closing ? (int)((const char *)closing - table) : *table_len;
	}
	return table;
}

/* The table of a statement that starts with `operation`, six letters; null when there is none. */
static const char *table_of(const char *stmt, const char *operation, int *table_len)
{
	const char *after = stmt + 6;
	switch (*operation) {
	case 'S': return table_of_select(stmt, table_len);
	case 'D': return find_table(after, "FROM", table_len);
	case 'I':
		if (const char *table = find_table(after, "INTO", table_len)) {
			return table;
		}
		return find_word(after, table_len);
	default: return find_word(after, table_len);
	}
}

char *metric_name_from_sql(const sql_element *sql)
{
	static const char *const operations[] = {"SELECT", "DELETE", "UPDATE", "INSERT"};
	const char *stmt = sql->statement ? sql->statement : "";
	while (isSpace(*stmt)) {
		stmt++;
	}
	const char *operation = NULL, *table = NULL;
	int table_len = 0;
	for (const char *candidate : operations) {
		if (zq_strncasecmp(stmt, candidate, 6) == 0) {
			operation = candidate;
			table = table_of(stmt, operation, &table_len);
		}
	}
	if (!operation) {
		operation = "CALL";
		table = find_word(stmt, &table_len);
	}

	smart_str name = {};
	zq_append_text(&name, "Database ");
	zq_append_text(&name, sql->db);
	zq_append_char(&name, '/');
	zq_append(&name, table, (size_t)table_len);
	zq_append_char(&name, '/');
	zq_append_text(&name, operation);
	return zq_buffer_text(&name);
}
