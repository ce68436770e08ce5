/* How long each component (outermost functions, framework parts, compiling) took, and how much of that was spent in
 * components, queries and calls inside it. */
#ifndef ZQP_COMPONENT_H
#define ZQP_COMPONENT_H

#include "zqp_helper.h"

/* An open component: an element of `components`, used as a stack, copied by value. */
typedef struct component_element {
	char *name;    /* request memory, no control characters */
	int metric;    /* ms */
	int exclusive; /* ms spent in what it called: nested components, queries, outgoing calls */
} component_element;

/* Sums under one name: the value of `components_hash`, kept as a pointer. */
typedef struct component_hash_element {
	int metric;    /* ms */
	int exclusive; /* ms */
} component_hash_element;

/* New zeroed record that owns `name`, whose control characters become blanks. */
component_element *component_element_alloc(char *name);
void component_element_dtor(void *ele);      /* frees the name, not the record */
void component_hash_element_dtor(void *ele); /* a hash destructor: receives the stored pointer's address */

/* Opens "PHP/<class or NULL>/<function>" and returns its list element, borrowed. */
zend_llist_element *zq_component_open(const char *cls, const char *func TSRMLS_DC);
/* Closes it when it is still the innermost one; otherwise leaves the list alone. `generation` is the value of
 * component_generation when it was opened: a list emptied since has forgotten the element. */
void zq_component_close(zend_llist_element *element, unsigned generation, int elapsed_ms TSRMLS_DC);
/* Adds to the sums under `name`, creating them. */
void zq_component_add(const char *name, int metric_ms, int exclusive_ms TSRMLS_DC);
/* Charges time spent outside PHP code to the innermost open component, if there is one and the time is positive. */
void zq_component_spent_outside(int elapsed_ms TSRMLS_DC);

#endif
