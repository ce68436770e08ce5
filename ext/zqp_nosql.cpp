/* Totals of cache and document store operations. */
#include "zqp_nosql.h"

void nosql_hash_element_dtor(void *ele)
{
	nosql_hash_element *total = *(nosql_hash_element **)ele;
	if (total) {
		efree(total);
	}
}

int zq_nosql_total_ms(HashTable *table)
{
	if (!table) {
		return 0;
	}
	uint64 total_ms = 0;
	HashPosition at;
	void *data;
	for (zend_hash_internal_pointer_reset_ex(table, &at); zend_hash_get_current_data_ex(table, &data, &at) == SUCCESS;
	     zend_hash_move_forward_ex(table, &at)) {
		total_ms += (*(nosql_hash_element **)data)->tsc / 1000;
	}
	return (int)total_ms;
}
