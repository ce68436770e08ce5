/* What the browser script needs to know about text: where a page has its tags, and how a text is written inside a
 * script. Free of the engine. */
#ifndef ZQP_RUM_TEXT_H
#define ZQP_RUM_TEXT_H

#include <stddef.h>

/* Bytes of a response that are searched; a page whose head is longer than that gets no script. */
static const size_t ZQ_RUM_EXAMINED_BYTES = 65536;

/* The ">" that closes an opening html tag in the first ZQ_RUM_EXAMINED_BYTES; borrowed, null when there is none. */
const char *html_pos(const char *buf, size_t length);
/* Where the element goes in the first ZQ_RUM_EXAMINED_BYTES: behind "</title>" or in front of "</head>", whichever
 * comes first; possibly the end of the text. Borrowed, null when there is neither. */
const char *rum_pos(const char *buf, size_t length);

/* The longest that zq_rum_escape writes. */
static const size_t ZQ_RUM_ESCAPE_SIZE = 6;
/* Writes one byte of a text as it stands between single quotes in a script: as it is, or "\u00xx" when it could end the
 * string, the script or the line. Returns the number of bytes written; no NUL. */
size_t zq_rum_escape(char out[ZQ_RUM_ESCAPE_SIZE], char ch);

#endif
