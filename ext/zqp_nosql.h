/* Time spent in caches and document stores, summed per operation. */
#ifndef ZQP_NOSQL_H
#define ZQP_NOSQL_H

#include "zqp_helper.h"

/* Value of nosql_memcc, nosql_redis and nosql_mongo, kept as a pointer; keys are operation names. */
typedef struct nosql_hash_element {
	uint64 tsc; /* us of all calls under this key */
	/* private */
	unsigned calls;
} nosql_hash_element;

void nosql_hash_element_dtor(void *ele); /* a hash destructor: receives the stored pointer's address */
/* Sum over a table of each key's whole milliseconds; 0 for a null table. */
int zq_nosql_total_ms(HashTable *table);

/* 1 when calls of an operation count: not for a null name or one that begins with "_". `hash` other than 0, the name's
 * zq_name_hash(), admits only the operations that read or change data in caches and collections; 0 admits the rest. */
int zq_nosql_counts(const char *name, uint64 hash);
/* The name in upper case by ASCII rules, request memory of the caller; null when it does not count. */
char *get_nosql_op_name(const char *name, uint64 hash);

/* How an operation is spelt in its key. */
typedef enum { ZQ_OPERATION_UPPER, ZQ_OPERATION_AS_GIVEN } zq_operation_case;

/* Adds a call to its operation's row, and its whole milliseconds to what the innermost component spent elsewhere. The
 * key is "<collection>\n<operation>", the operation alone for a null `collection`; both are borrowed and end at their
 * first NUL. Only a key's first call allocates (request memory). Keys are kept up to 511 bytes, of which a report shows
 * 127; from the 4,097th on they share one row, of an empty operation in an empty collection. A null table records
 * nothing. */
void zq_nosql_add(HashTable *table, const char *collection, const char *operation, zq_operation_case spelling,
	uint64 elapsed_us TSRMLS_DC);

#endif
