/* How long each component (outermost functions, framework parts, compiling) took, and how much of that was spent in
 * components, queries and calls inside it. */
#ifndef ZQP_COMPONENT_H
#define ZQP_COMPONENT_H

#include "zqp_helper.h"

/* An open component: the data of a node of `components`, used as a stack. */
typedef struct component_element {
	char *name;    /* request memory, no control characters; null until it closes */
	int metric;    /* ms */
	int exclusive; /* ms spent in what it called: nested components, queries, outgoing calls */
	/* private */
	const zend_execute_data *frame = NULL; /* that makes its call; null when it has no row among the open calls */
	bool has_ended = false;                /* without returning: counted already */
} component_element;

/* Sums under one name: the value of `components_hash`, kept as a pointer. */
typedef struct component_hash_element {
	int metric;    /* ms */
	int exclusive; /* ms */
} component_hash_element;

/* New zeroed record in a list node (zq_list_new) that owns `name`, whose control characters become spaces; null: none
 * yet. */
component_element *component_element_alloc(char *name);
void component_element_dtor(void *ele);      /* frees the name, not the node */
void component_hash_element_dtor(void *ele); /* a hash destructor: receives the stored pointer's address */

/* Opens a component and returns its list element, borrowed. */
zend_llist_element *zq_component_open(TSRMLS_D);
/* Closes it as "PHP/<class or NULL>/<function>" when it is still the innermost one; otherwise leaves the list alone.
 * `generation` is the value of component_generation when it was opened: a list emptied since has forgotten the element.
 */
void zq_component_close(
	zend_llist_element *element, unsigned generation, const char *cls, const char *func, int elapsed_ms TSRMLS_DC);
/* Adds to the sums under "PHP/<class or NULL>/<function>". */
void zq_component_sum(const char *cls, const char *func, int metric_ms, int exclusive_ms TSRMLS_DC);
/* Adds to the sums under `name`, creating them. */
void zq_component_add(const char *name, int metric_ms, int exclusive_ms TSRMLS_DC);
/* Charges time spent outside PHP code to the innermost open component, if there is one and the time is positive. */
void zq_component_spent_outside(int elapsed_ms TSRMLS_DC);

#endif
