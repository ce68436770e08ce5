/* Time spent in caches and document stores, summed per operation. */
#ifndef ZQP_NOSQL_H
#define ZQP_NOSQL_H

#include "zqp_helper.h"

/* Value of nosql_memcc, nosql_redis and nosql_mongo, kept as a pointer; keys are operation names. */
typedef struct nosql_hash_element {
	uint64 tsc; /* us of all calls under this key */
} nosql_hash_element;

void nosql_hash_element_dtor(void *ele); /* a hash destructor: receives the stored pointer's address */
/* Sum over a table of each key's whole milliseconds; 0 for a null table. */
int zq_nosql_total_ms(HashTable *table);

#endif
