/* The browser script: one element inserted into the HTML page, at the output writer or in the active output buffer. */
#ifndef ZQP_RUM_H
#define ZQP_RUM_H

#include "zqp_helper.h"

/* The output writer that stands in for the server API's own; passes everything through unless a page wants the script. */
int zq_ub_write(const char *str, unsigned int length TSRMLS_DC);
/* Inserts into the active output buffer when the page qualifies. */
void injectOutputBuffer(TSRMLS_D);

#endif
