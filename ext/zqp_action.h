/* The state of a request and of its action, from its making to its end: what both kinds of action, a web request and
 * one that a command-line script begins, have in common. */
#ifndef ZQP_ACTION_H
#define ZQP_ACTION_H

#include "zqp_state.h"

/* Creates the lists and tables of the action that are still missing, and the tables of watched names. */
void zq_create_containers(TSRMLS_D);
/* Empties the lists and tables that exist: their records have been reported. */
void zq_empty_containers(TSRMLS_D);
/* Frees all that the action owns, and makes its fields what they are before the first. */
void zq_release_action(TSRMLS_D);
/* Frees the request copies of the application's configuration and clears their fields. */
void zq_free_config_copies(TSRMLS_D);
/* Frees all that the request and its action own, and clears their fields. */
void zq_release_request(TSRMLS_D);
/* Clears them without freeing request memory: another module's bailout may have kept the last request's end from
 * running, and the engine has taken that memory back since. */
void zq_forget_request(zend_zqprof_globals *g);
/* Makes `license` point at a thread-owned copy of the account key, or at "empty key" when there is none. */
void zq_set_license(TSRMLS_D);
/* Threshold for the trace in us: one hundredth of the action threshold (ms), at least ZQ_TRACER_FLOOR_US. */
uint64 zq_tracer_threshold_us(int action_threshold_ms);

#endif
