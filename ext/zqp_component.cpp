/* Component timings. Open components form a stack in `components`; a finished one is charged to the one around it and
 * summed by name in `components_hash`. A call that left by a bailout never closes its component: the element stays
 * open, and whatever was opened around it then no longer is the tail either. */
#include "zqp_component.h"
#include "zqp_details.h"
#include "zqp_json.h"

component_element *component_element_alloc(char *name)
{
	component_element *element = (component_element *)zq_list_new(sizeof(*element));
	*element = {name, 0, 0};
	if (name) {
		zq_str_replace_ln(name);
	}
	return element;
}

void component_element_dtor(void *ele)
{
	zq_replace_text(&((component_element *)ele)->name, NULL);
}

void component_hash_element_dtor(void *ele)
{
	component_hash_element *sums = *(component_hash_element **)ele;
	if (sums) {
		efree(sums);
	}
}

static void append_name_part(smart_str *name, const char *part)
{
	zq_append_char(name, '/');
	json_escape_string(name, part, strlen(part), 0);
}

zend_llist_element *zq_component_open(TSRMLS_D)
{
	return ZQG(components) ? zq_list_append(ZQG(components), component_element_alloc(NULL)) : NULL;
}

static char *component_name(const char *cls, const char *func)
{
	smart_str name = {};
	zq_append(&name, "PHP", 3);
	append_name_part(&name, cls ? cls : "NULL");
	append_name_part(&name, func ? func : "");
	zq_str_replace_ln(zq_buffer_text(&name));
	return name.c;
}

/* The name of the component that has this number in the packet, when it was cut. */
static void keep_cut_name(unsigned number, const char *cls, const char *func TSRMLS_DC)
{
	cls = cls ? cls : "NULL";
	func = func ? func : "";
	if (zq_json_keeps(cls, strlen(cls)) && zq_json_keeps(func, strlen(func))) {
		return;
	}
	char *whole;
	int len = spprintf(&whole, 0, "PHP/%s/%s", cls, func);
	zq_details_keep_text(ZQG(details), number, 0, whole, (size_t)len);
	efree(whole);
}

/* Only here does a component get its name: nobody sees those that took no time, and outermost functions are many. */
void zq_component_close(
	zend_llist_element *element, unsigned generation, const char *cls, const char *func, int elapsed_ms TSRMLS_DC)
{
	zend_llist *open = ZQG(components);
	if (!element || !open || generation != ZQG(component_generation) || open->tail != element) {
		return;
	}
	component_element *component = (component_element *)element->data;
	if (elapsed_ms > 0 && !component->has_ended) {
		if (element->prev) {
			((component_element *)element->prev->data)->exclusive += elapsed_ms;
		}
		zq_component_sum(cls, func, elapsed_ms, component->exclusive TSRMLS_CC);
	}
	zend_llist_remove_tail(open);
}

void zq_component_sum(const char *cls, const char *func, int metric_ms, int exclusive_ms TSRMLS_DC)
{
	char *name = component_name(cls, func);
	int before = ZQG(components_hash) ? zend_hash_num_elements(ZQG(components_hash)) : 0;
	zq_component_add(name, metric_ms, exclusive_ms TSRMLS_CC);
	if (ZQG(details) && ZQG(components_hash) && before < zend_hash_num_elements(ZQG(components_hash))) {
		keep_cut_name((unsigned)before, cls, func TSRMLS_CC);
	}
	efree(name);
}

void zq_component_add(const char *name, int metric_ms, int exclusive_ms TSRMLS_DC)
{
	HashTable *table = ZQG(components_hash);
	if (!table) {
		return;
	}
	uint key_size = (uint)strlen(name) + 1; /* 5.6 counts the NUL in hash keys */
	component_hash_element *sums = (component_hash_element *)FIND_HASH_PVALUE(table, name, key_size);
	if (!sums) {
		sums = (component_hash_element *)ecalloc(1, sizeof(component_hash_element));
		zend_hash_update(table, name, key_size, &sums, sizeof(sums), NULL);
	}
	sums->metric += metric_ms;
	sums->exclusive += exclusive_ms;
}

void zq_component_spent_outside(int elapsed_ms TSRMLS_DC)
{
	if (elapsed_ms > 0 && ZQG(components) && ZQG(components)->tail) {
		((component_element *)ZQG(components)->tail->data)->exclusive += elapsed_ms;
	}
}
