/* The browser script: one element inserted into the HTML page, at the output writer or in the active output buffer. */
#ifndef ZQP_RUM_H
#define ZQP_RUM_H

#include "zqp_helper.h"

/* The output writer that stands in for the server API's own; passes everything through unless a page wants the script.
 * The saved writer's result, or `length` when it inserted. */
int zq_ub_write(const char *str, unsigned int length TSRMLS_DC);
/* Inserts into the active output buffer when the page qualifies; nothing while an output handler runs. */
void injectOutputBuffer(TSRMLS_D);

/* The ">" that closes an opening html tag in the first 65,536 bytes; borrowed, null when there is none. */
const char *html_pos(const char *buf, size_t length);
/* Where the element goes in the first 65,536 bytes: behind "</title>" or in front of "</head>", whichever comes first;
 * possibly the end of the text. Borrowed, null when there is neither. */
const char *rum_pos(const char *buf, size_t length);
/* Appends the element to `out`: `script` with the page's data assigned before its last "}". 1, or 0 with nothing
 * appended when the script is null or has no "}". */
int buildScript(const char *script, smart_str *out TSRMLS_DC);

#endif
