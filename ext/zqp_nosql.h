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

/* By the name's zq_name_hash(): operations of caches, then of collections. The clients' other methods configure them or
 * ask for their state. */
constexpr bool zq_is_data_operation(uint64 hash)
{
	switch (hash) {
	case zq_name_hash("add"):
	case zq_name_hash("get"):
	case zq_name_hash("set"):
	case zq_name_hash("cas"):
	case zq_name_hash("delete"):
	case zq_name_hash("flush"):
	case zq_name_hash("touch"):
	case zq_name_hash("append"):
	case zq_name_hash("prepend"):
	case zq_name_hash("replace"):
	case zq_name_hash("increment"):
	case zq_name_hash("decrement"):
	case zq_name_hash("getMulti"):
	case zq_name_hash("setMulti"):
	case zq_name_hash("deleteMulti"):
	case zq_name_hash("getDelayed"):
	case zq_name_hash("getAllKeys"):
	case zq_name_hash("fetch"):
	case zq_name_hash("fetchAll"):
	case zq_name_hash("addByKey"):
	case zq_name_hash("getByKey"):
	case zq_name_hash("setByKey"):
	case zq_name_hash("casByKey"):
	case zq_name_hash("touchByKey"):
	case zq_name_hash("deleteByKey"):
	case zq_name_hash("appendByKey"):
	case zq_name_hash("prependByKey"):
	case zq_name_hash("replaceByKey"):
	case zq_name_hash("incrementByKey"):
	case zq_name_hash("decrementByKey"):
	case zq_name_hash("getMultiByKey"):
	case zq_name_hash("setMultiByKey"):
	case zq_name_hash("deleteMultiByKey"):
	case zq_name_hash("getDelayedByKey"):
	case zq_name_hash("find"):
	case zq_name_hash("findOne"):
	case zq_name_hash("findAndModify"):
	case zq_name_hash("insert"):
	case zq_name_hash("batchInsert"):
	case zq_name_hash("update"):
	case zq_name_hash("save"):
	case zq_name_hash("remove"):
	case zq_name_hash("count"):
	case zq_name_hash("distinct"):
	case zq_name_hash("group"):
	case zq_name_hash("drop"):
	case zq_name_hash("getIndexInfo"):
	case zq_name_hash("createIndex"):
	case zq_name_hash("ensureIndex"):
	case zq_name_hash("deleteIndex"):
	case zq_name_hash("deleteIndexes"): return true;
	}
	return false;
}

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
