/* One outgoing call of the action. */
#ifndef ZQP_WEBSERVICE_H
#define ZQP_WEBSERVICE_H

#include "zqp_helper.h"

/* The data of a node of `webservices`; strings are request memory. */
typedef struct webservice_element {
	char *name;             /* normalised URL, "/" and the class or function */
	char *url;              /* full URL; only of calls slow enough for the trace, else null */
	char *transaction_data; /* the callee's answer data, may be null */
	char *error_msg;        /* may be null */
	char *stack;            /* a stack text (zqp_helper.h), only of failed calls */
	int metric;             /* ms */
	int status;             /* HTTP status, 0 when unknown */
} webservice_element;

/* New record with its name made from `uri` (zq_append_web), "?" and `named_params` (may be null), "/" and the class,
 * or the function without one; `transaction_data` is copied. It lies in a list node, which is given away by
 * zq_list_append(). */
webservice_element *webservice_element_alloc(
	const char *cls, const char *func, const char *uri, const char *named_params, const char *transaction_data);
void webservice_element_dtor(void *ele); /* frees the strings, not the record */

#endif
