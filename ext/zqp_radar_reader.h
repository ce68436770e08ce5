/* Reading the text of a PHP file as the scanner of PHP 5.6 does, but only as finely as the radar needs. Free of the
 * engine. */
#ifndef ZQP_RADAR_READER_H
#define ZQP_RADAR_READER_H

#include <string_view>
#include <strings.h>

#include "zqp_radar_text.h"

inline constexpr unsigned ZQ_MOST_NESTED = 256;

/* What the token before leaves to say of the one that follows. */
enum zq_code_token : unsigned char {
	ZQ_CODE_OTHER,
	ZQ_CODE_VARIABLE, /* $name */
	ZQ_CODE_INDIRECT, /* $name behind $ or ->: its value is a name */
	ZQ_CODE_MEMBER,   /* a name behind -> */
	ZQ_CODE_CLOSED,   /* the end of an index, or of braces that are an offset or a name */
	ZQ_CODE_ARROW,    /* -> */
	ZQ_CODE_COLONS,   /* :: */
	ZQ_CODE_DOLLAR    /* one that no name follows */
};

enum zq_nest_kind : unsigned char { ZQ_ROUND, ZQ_SQUARE, ZQ_BLOCK, ZQ_NAME_OR_OFFSET, ZQ_IN_TEXT };

/* What was opened and is not closed yet. */
struct zq_nest {
	zq_nest_kind kind;
	char quote;             /* of ZQ_IN_TEXT: what ends the text; 0: a line with the label */
	std::string_view label; /* of a heredoc */
	unsigned first_ternary; /* that is inside it */
};

/* A `?` whose expression may go on. */
struct zq_ternary {
	bool is_past_colon, is_short; /* short: ?: */
};

struct zq_reader {
	std::string_view text;
	size_t at;
	unsigned line;
	zq_radar_tags tags;
	zq_radar_found found;
	void *context;
	zq_code_token before;
	unsigned depth, ternary_count;
	zq_nest nests[ZQ_MOST_NESTED];
	zq_ternary ternaries[ZQ_MOST_NESTED];
};

/* The byte so far ahead, 0 behind the end. */
static inline char zq_peek(const zq_reader *in, size_t ahead = 0)
{
	return in->at + ahead < in->text.size() ? in->text[in->at + ahead] : '\0';
}
static inline bool zq_is_blank(char c)
{
	return c == ' ' || c == '\t';
}
static inline bool zq_is_space(char c)
{
	return zq_is_blank(c) || c == '\n' || c == '\r';
}
static inline bool zq_begins_name(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (unsigned char)c >= 0x7F;
}
/* How many bytes there belong to a name or number. */
static inline size_t zq_name_length(const zq_reader *in, size_t ahead = 0)
{
	size_t length = 0;
	for (char c = zq_peek(in, ahead); zq_begins_name(c) || (c >= '0' && c <= '9'); c = zq_peek(in, ahead + length)) {
		length++;
	}
	return length;
}
/* Whether the text goes on so, in whatever case. */
static inline bool zq_goes_on(const zq_reader *in, std::string_view what, size_t ahead = 0)
{
	return in->at + ahead + what.size() <= in->text.size() &&
		strncasecmp(in->text.data() + in->at + ahead, what.data(), what.size()) == 0;
}
/* Goes on to that place, not further than the end, and counts lines. */
static inline void zq_go_to(zq_reader *in, size_t place)
{
	place = place < in->text.size() ? place : in->text.size();
	for (; in->at < place; in->at++) {
		char c = in->text[in->at];
		in->line += c == '\n' || (c == '\r' && zq_peek(in, 1) != '\n');
	}
}
static inline void zq_skip(zq_reader *in, size_t count)
{
	zq_go_to(in, in->at + count);
}

/* Goes into brackets or braces; where they are too deep, to the end of the text. */
void zq_open_nest(zq_reader *in, zq_nest_kind kind, char quote = 0, std::string_view label = {});
/* The number of the first ?: inside the innermost of them. */
unsigned zq_first_ternary(const zq_reader *in);

/* Reads a text with variables from behind its quote, or from behind such variables, up to its end or to the next braces
 * with code in them, which it opens. `quote` 0: a heredoc with that label. */
void zq_read_text(zq_reader *in, char quote, std::string_view label);
void zq_read_plain_text(zq_reader *in);
/* False when `<<<` begins none. */
bool zq_read_heredoc(zq_reader *in);
void zq_read_line_comment(zq_reader *in);
void zq_read_block_comment(zq_reader *in);
/* Goes on to behind the tag that begins the next code, or to the end; tells which tag. */
enum zq_tag : unsigned char { ZQ_TAG_PHP, ZQ_TAG_ASP, ZQ_TAG_SCRIPT };
zq_tag zq_read_html(zq_reader *in);
/* The length of the tag that ends code, 0 for none. */
size_t zq_closing_tag(const zq_reader *in);

#endif
