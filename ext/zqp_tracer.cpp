/* The records behind a trace: statements and slow calls, and the bound on how many of the latter an action keeps. */
#include "zqp_tracer.h"
#include "zqp_debug.h"

/* Each call kept costs some 200 bytes of the script's own memory limit. */
static const size_t MAX_TRACED_CALLS = 100000, TRACED_CALL_BYTES = 256;

/* Where the text of a new record lies. */
static char *own_text(sql_element *element)
{
	return (char *)(element + 1);
}

/* Scripts repeat one quick statement thousands of times, and then each allocation shows: list node, record and text are
 * one block. */
sql_element *sql_element_alloc(const char *db, const char *statement, char *stack, char *explain, int metric_ms)
{
	if (!statement) {
		statement = "sql is null";
	}
	size_t most = strnlen(statement, ZQ_MAX_STATEMENT);
	sql_element *element = (sql_element *)zq_list_new(sizeof(*element) + most + 1);
	size_t len = zq_clean_statement(statement, most, own_text(element));
	if (most - len > 64) { /* what comments took must not stay allocated for many short statements */
		size_t size = offsetof(zend_llist_element, data) + sizeof(*element) + len + 1;
		element = (sql_element *)((zend_llist_element *)erealloc(zq_list_node(element), size))->data;
	}
	*element = {db, own_text(element), stack, explain, metric_ms};
	element->text_is_verbatim = len == most;
	return element;
}

/* The last record when a call with these figures is like it; null otherwise. */
static sql_element *repeated(
	const zend_llist *list, const char *db, const char *statement, int metric_ms, unsigned place)
{
	sql_element *last = list->tail ? (sql_element *)list->tail->data : NULL;
	if (!last || !last->text_is_verbatim || last->metric != metric_ms || last->db != db || last->place != place ||
		last->stack || last->explain) {
		return NULL;
	}
	return strcmp(last->statement, statement) == 0 ? last : NULL;
}

sql_element *zq_keep_statement(
	zend_llist *list, const char *db, const char *statement, int metric_ms, unsigned place, int may_repeat)
{
	sql_element *element = may_repeat ? repeated(list, db, statement, metric_ms, place) : NULL;
	if (element) {
		element->repeats++;
		return element;
	}
	element = sql_element_alloc(db, statement, NULL, NULL, metric_ms);
	element->place = (uint16_t)place;
	zq_list_append(list, element);
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
		zq_replace_text(text, NULL);
	}
}

/* Puts a name with its NUL at `to`, control characters as spaces. */
static char *put_name(char *to, const char *name, size_t size)
{
	memcpy(to, name, size);
	zq_str_replace_ln(to);
	return to;
}

/* List node, element and names are one block, so that a traced call costs one allocation. */
tracer_element *tracer_element_alloc(const char *cls, const char *func)
{
	size_t cls_size = cls ? strlen(cls) + 1 : 0;
	size_t func_size = func ? strlen(func) + 1 : 1;
	tracer_element *element = (tracer_element *)zq_list_new(sizeof(tracer_element) + cls_size + func_size);
	char *names = (char *)(element + 1);
	memset(element, 0, sizeof(*element));
	element->cls = cls ? put_name(names, cls, cls_size) : NULL;
	element->func = put_name(names + cls_size, func ? func : "", func_size);
	return element;
}

void tracer_element_dtor(void *ele)
{
	zq_replace_text(&((tracer_element *)ele)->filename, NULL);
}

/* The engine's sort is not stable: on equal starts the longer call must be named as the earlier one, and of two with
 * one span, as thin layers have them, the later to return, or a call would become its own callee's child. */
int tracer_element_cmp(const zend_llist_element **f, const zend_llist_element **s TSRMLS_DC)
{
	const tracer_element *first = (const tracer_element *)(*f)->data;
	const tracer_element *second = (const tracer_element *)(*s)->data;
	if (first->start != second->start) {
		return first->start > second->start;
	}
	return first->end != second->end ? first->end < second->end : first->number < second->number;
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
	size_t count = ZQG(tracer)->count;
	if (EXPECTED(count < MAX_TRACED_CALLS && count * TRACED_CALL_BYTES < zq_most_recorded_bytes(TSRMLS_C))) {
		return 0;
	}
	zq_note_recorded_limit("traced calls" TSRMLS_CC);
	return 1;
}

void zq_trace_append(tracer_element *element TSRMLS_DC)
{
	if (zq_trace_is_full(TSRMLS_C)) {
		tracer_element_dtor(element);
		efree(zq_list_node(element));
	} else {
		element->number = (unsigned)ZQG(tracer)->count;
		zq_list_append(ZQG(tracer), element);
	}
}

void zq_trace_call(const char *cls, const char *func, zend_execute_data *data_frame, uint64 begin_us, uint64 end_us,
	int data_type, void *data TSRMLS_DC)
{
	if (zq_trace_is_full(TSRMLS_C)) {
		return; /* before the names are copied */
	}
	tracer_element *element = tracer_element_alloc(cls, func);
	element->start = begin_us;
	element->end = end_us;
	element->data_type = data_type;
	element->data = data;
	if ((int64_t)((end_us - begin_us) / 1000) >= ZQG(action_tracer_stack_trace_threshold)) {
		element->lineno = zq_calling_line(data_frame, &element->filename TSRMLS_CC);
	}
	zq_trace_append(element TSRMLS_CC);
}
