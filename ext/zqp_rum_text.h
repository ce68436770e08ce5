/* What the browser script needs to know about text: where a page has its tags, and how a text is written inside a
 * script. Free of the engine. */
#ifndef ZQP_RUM_TEXT_H
#define ZQP_RUM_TEXT_H

#include <stddef.h>

/* Bytes of a response that are searched; a page whose head is longer than that gets no script. */
static const size_t ZQ_RUM_EXAMINED_BYTES = 65536;

/* The ">" that closes an opening html tag in the first ZQ_RUM_EXAMINED_BYTES; borrowed, null when there is none. */
const char *html_pos(const char *buf, size_t length);
/* What the text at some place of a page lies in. Within the last four no tag is one but the end of that element. */
enum zq_page_part { ZQ_IN_MARKUP, ZQ_IN_TITLE, ZQ_IN_SCRIPT, ZQ_IN_STYLE, ZQ_IN_TEXTAREA, ZQ_IN_COMMENT };

/* A place in a page that comes in pieces, after one of them; all zero at the page's beginning. */
struct zq_page_place {
	char part;     /* zq_page_part */
	char tail_len; /* the piece ended in bytes that may begin a tag which changes the part */
	char tail[12];
};

/* Where the element goes in the first ZQ_RUM_EXAMINED_BYTES of a piece: after "</title>" or in front of "</head>",
 * whichever comes first and is a tag; possibly the end of the text. Borrowed, null when there is neither. `page` is
 * where the piece begins, and moves to its end; with a null `page` every one of these is a tag. */
const char *rum_pos(const char *buf, size_t length, struct zq_page_place *page);

/* The longest that zq_rum_escape writes. */
static const size_t ZQ_RUM_ESCAPE_SIZE = 6;
/* Writes one byte of a text as it goes between single quotes in a script: as it is, or "\u00xx" when it could end the
 * string, the script or the line. Returns the number of bytes written; no NUL. */
size_t zq_rum_escape(char out[ZQ_RUM_ESCAPE_SIZE], char ch);

#endif
