/* Totals of cache and document store operations. A page makes hundreds of such calls, so a call leaves no record of its
 * own: its time goes into one row per operation. */
#include "zqp_nosql.h"

#include "zqp_component.h"

namespace {

enum {
	MAX_KEY_SIZE = 512, /* counts the NUL */
	MAX_ROWS = 4096     /* a worker that never ends its action may name a collection per job */
};

/* Writes up to `most` bytes of an operation's name, without a NUL, and returns how many. */
size_t put_operation(char *to, const char *name, size_t most, zq_operation_case spelling)
{
	size_t len = 0;
	for (; name[len] && len < most; len++) {
		to[len] = spelling == ZQ_OPERATION_UPPER ? zq_ascii_upper(name[len]) : name[len];
	}
	return len;
}

/* Writes the key and returns its size with the NUL. */
uint build_key(char (&key)[MAX_KEY_SIZE], const char *collection, const char *operation, zq_operation_case spelling)
{
	size_t len = 0;
	if (collection) {
		len = strnlen(collection, MAX_KEY_SIZE - 2);
		memcpy(key, collection, len);
		key[len++] = '\n';
	}
	len += put_operation(key + len, operation, MAX_KEY_SIZE - 1 - len, spelling);
	key[len] = '\0';
	return (uint)len + 1;
}

/* The key's row, made when it is the first call's. */
nosql_hash_element *find_or_add_row(HashTable *table, const char *key, uint key_size)
{
	nosql_hash_element *row = (nosql_hash_element *)FIND_HASH_PVALUE(table, key, key_size);
	if (row) {
		return row;
	}
	const char *shared = strchr(key, '\n') ? "\n" : ""; /* has as many lines as the store's other keys */
	if (zend_hash_num_elements(table) >= MAX_ROWS && strcmp(key, shared) != 0) {
		return find_or_add_row(table, shared, (uint)strlen(shared) + 1);
	}
	row = (nosql_hash_element *)ecalloc(1, sizeof(*row));
	zend_hash_update(table, key, key_size, &row, sizeof(row), NULL);
	return row;
}

} // namespace

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

int zq_nosql_counts(const char *name, uint64 hash)
{
	return name && *name != '_' && (!hash || zq_is_data_operation(hash));
}

char *get_nosql_op_name(const char *name, uint64 hash)
{
	if (!zq_nosql_counts(name, hash)) {
		return NULL;
	}
	char *upper = estrdup(name);
	put_operation(upper, name, strlen(name), ZQ_OPERATION_UPPER);
	return upper;
}

void zq_nosql_add(HashTable *table, const char *collection, const char *operation, zq_operation_case spelling,
	uint64 elapsed_us TSRMLS_DC)
{
	if (!table) {
		return;
	}
	zq_component_spent_outside((int)(elapsed_us / 1000) TSRMLS_CC);
	char key[MAX_KEY_SIZE];
	uint key_size = build_key(key, collection, operation, spelling);
	nosql_hash_element *row = find_or_add_row(table, key, key_size);
	row->tsc += elapsed_us;
	row->calls++;
}
