/* The records behind a trace: statements and slow calls, and the bound on how many of the latter an action keeps. */
#include "zqp_tracer.h"
#include "zqp_debug.h"

/* Each call kept costs some 200 bytes of the script's own memory limit. */
static const int MAX_TRACED_CALLS = 100000;

sql_element *sql_element_alloc(const char *db, const char *statement, char *stack, char *explain, int metric)
{
	sql_element *element = (sql_element *)ecalloc(1, sizeof(sql_element));
	element->db = db;
	element->statement = statement ? rm_comment(statement) : estrdup("sql is null");
	element->stack = stack;
	element->explain = explain;
	element->metric = metric;
	return element;
}

/* Where the text of a record made by zq_keep_statement() lies. */
static char *own_text(sql_element *element)
{
	return (char *)(element + 1);
}

/* The last record when a call with these figures is like it; null otherwise. */
static sql_element *repeated(const zend_llist *list, const char *db, const char *statement, int metric)
{
	sql_element *last = list->tail ? (sql_element *)list->tail->data : NULL;
	if (!last || !last->text_is_verbatim || last->metric != metric || last->db != db || last->stack || last->explain) {
		return NULL;
	}
	return strcmp(last->statement, statement) == 0 ? last : NULL;
}

/* Links a node made by ourselves, as zend_llist_add_element() does with its own. */
static void append_node(zend_llist *list, zend_llist_element *node)
{
	node->prev = list->tail;
	node->next = NULL;
	if (list->tail) {
		list->tail->next = node;
	} else {
		list->head = node;
	}
	list->tail = node;
	list->count++;
}

/* Scripts repeat one quick statement thousands of times, and then each allocation shows: a repetition takes none, and
 * list node, record and text are one block. */
sql_element *zq_keep_statement(zend_llist *list, const char *db, const char *statement, int metric, int may_repeat)
{
	const size_t head = offsetof(zend_llist_element, data) + sizeof(sql_element);
	sql_element *element = may_repeat ? repeated(list, db, statement, metric) : NULL;
	if (element) {
		element->repeats++;
		return element;
	}
	size_t most = strnlen(statement, ZQ_MAX_STATEMENT);
	zend_llist_element *node = (zend_llist_element *)emalloc(head + most + 1);
	size_t len = zq_clean_statement(statement, most, (char *)node + head);
	if (most - len > 64) { /* what comments took must not stay allocated behind many short statements */
		node = (zend_llist_element *)erealloc(node, head + len + 1);
	}
	element = (sql_element *)node->data;
	*element = {db, own_text(element), NULL, NULL, metric};
	element->text_is_verbatim = len == most;
	append_node(list, node);
	return element;
}

void sql_element_dtor(void *ele)
{
	sql_element *element = (sql_element *)ele;
	if (element->statement == own_text(element)) {
		element->statement = NULL;
	}
	char **texts[] = {&element->statement, &element->stack, &element->explain};
	for (char **text : texts) {
		if (*text) {
			efree(*text);
			*text = NULL;
		}
	}
}

static char *copy_without_controls(const char *name)
{
	char *copy = estrdup(name);
	zq_str_replace_ln(copy);
	return copy;
}

tracer_element *tracer_element_alloc(const char *cls, const char *func)
{
	tracer_element *element = (tracer_element *)ecalloc(1, sizeof(tracer_element));
	element->cls = cls ? copy_without_controls(cls) : NULL;
	element->func = copy_without_controls(func ? func : "");
	return element;
}

void tracer_element_dtor(void *ele)
{
	tracer_element *element = (tracer_element *)ele;
	char **texts[] = {&element->cls, &element->func, &element->filename};
	for (char **text : texts) {
		if (*text) {
			efree(*text);
			*text = NULL;
		}
	}
}

/* The engine's sort is not stable: on equal starts the longer call must be named as the earlier one, or a call would
 * become its own callee's child. */
int tracer_element_cmp(const zend_llist_element **f, const zend_llist_element **s TSRMLS_DC)
{
	const tracer_element *first = (const tracer_element *)(*f)->data;
	const tracer_element *second = (const tracer_element *)(*s)->data;
	if (first->start != second->start) {
		return first->start > second->start;
	}
	return first->end < second->end;
}

void zq_note_recorded_limit(const char *what TSRMLS_DC)
{
	if (!ZQG(recorded_limit_logged)) {
		ZQG(recorded_limit_logged) = 1;
		ZQ_LOG(ZQ_LOG_DEBUG, "%s of this action are full, the rest only counts in totals", what);
	}
}

int zq_trace_is_full(TSRMLS_D)
{
	if (!ZQG(tracer)) {
		return 1;
	}
	if (zend_llist_count(ZQG(tracer)) < MAX_TRACED_CALLS) {
		return 0;
	}
	zq_note_recorded_limit("traced calls" TSRMLS_CC);
	return 1;
}

void zq_trace_append(tracer_element *element TSRMLS_DC)
{
	if (zq_trace_is_full(TSRMLS_C)) {
		tracer_element_dtor(element);
	} else {
		zend_llist_add_element(ZQG(tracer), element);
	}
	efree(element);
}

void zq_trace_call(const char *cls, const char *func, zend_execute_data *data_frame, uint64 start, uint64 end,
                   int data_type, void *data TSRMLS_DC)
{
	if (zq_trace_is_full(TSRMLS_C)) {
		return; /* before the names are copied */
	}
	tracer_element *element = tracer_element_alloc(cls, func);
	element->start = start;
	element->end = end;
	element->data_type = data_type;
	element->data = data;
	if ((int64_t)((end - start) / 1000) >= ZQG(action_tracer_stack_trace_threshold)) {
		element->lineno = zq_calling_line(data_frame, &element->filename TSRMLS_CC);
	}
	zq_trace_append(element TSRMLS_CC);
}
