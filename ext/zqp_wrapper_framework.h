/* Frameworks: recognised by a call of their start-up, and what each adds to the watched names: parts to be timed, the
 * calls that tell the controller and action, HTTP clients. */
#ifndef ZQP_WRAPPER_FRAMEWORK_H
#define ZQP_WRAPPER_FRAMEWORK_H

#include "zqp_wrapper.h"

/* Watches for the start-up call of every framework. The first that comes counts for the whole request: it is logged,
 * and its hooks join the watched names; those that come after it change nothing. */
void zq_watch_frameworks(TSRMLS_D);

#endif
