/* The browser script: one element inserted into the HTML page, at the output writer or in the active output buffer. */
#ifndef ZQP_RUM_H
#define ZQP_RUM_H

#include "zqp_helper.h"
#include "zqp_rum_text.h"

/* The output writer that stands in for the server API's own; passes everything through unless a page wants the script.
 * The saved writer's result, or `length` when it inserted. */
int zq_ub_write(const char *str, unsigned int length TSRMLS_DC);
/* Inserts into the active output buffer when the page qualifies; nothing while an output handler runs. Neither of the
 * two inserts into a response whose headers say that it is no HTML, is encoded, or has a length of its own. */
void injectOutputBuffer(TSRMLS_D);

/* Appends the element to `out`: `script` with the page's data assigned before its last "}". 1, or 0 with nothing
 * appended when the script is null or has no "}". */
int buildScript(const char *script, smart_str *out TSRMLS_DC);

#endif
