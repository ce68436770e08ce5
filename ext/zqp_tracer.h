/* The trace of a slow action: one element per slow call, and their tree as JSON; the metric name of a statement. */
#ifndef ZQP_TRACER_H
#define ZQP_TRACER_H

#include "zqp_details.h"

/* One recorded statement; an element of `sqls`, copied by value. Request memory except `db`. */
typedef struct sql_element {
	const char *db;  /* static vendor name, never freed; null is written as an empty text */
	char *statement; /* comments removed */
	char *stack;     /* a stack text (zqp_helper.h), may be null */
	char *explain;   /* JSON, may be null */
	int metric;      /* ms */
	/* private */
	unsigned repeats : 31 = 0;         /* that many more calls like this one followed it directly */
	unsigned text_is_verbatim : 1 = 0; /* cleaning changed nothing of the statement */
	uint16_t place = ZQ_NO_PLACE;      /* that ran it (zqp_details.h) */
} sql_element;

/* New record, adopting `stack` and `explain`; its statement is cleaned as by rm_comment(), null becomes "sql is null".
 * It lies in a list node, which is given away by zq_list_append(). */
sql_element *sql_element_alloc(const char *db, const char *statement, char *stack, char *explain, int metric_ms);
/* Records one call in `list` (of sql_element, request memory) and returns its record, borrowed; `stack` and `explain`
 * are null. When `may_repeat`, a call that is like the last one in all that is kept of it counts as its repetition; a
 * record that gets a stack or a plan must not be one. `place` is its number by zq_details_place(), or ZQ_NO_PLACE. */
sql_element *zq_keep_statement(
	zend_llist *list, const char *db, const char *statement, int metric_ms, unsigned place, int may_repeat);
void sql_element_dtor(void *ele); /* frees the strings, not the record */

enum { ZQ_TRACER_PLAIN = 0, ZQ_TRACER_SQL = 1, ZQ_TRACER_EXTERNAL = 2 };

/* One timed call; the data of a node of `tracer`. */
typedef struct tracer_element {
	char *cls; /* may be null; control characters replaced, as in func */
	char *func;
	int lineno;
	char *filename; /* may be null */
	int data_type;  /* ZQ_TRACER_* */
	void *data;     /* borrowed: the element in `sqls` or `webservices` */
	uint64 start;   /* us */
	uint64 end;     /* us */
	/* private */
	unsigned number; /* of its appending: a call comes after those that it made */
} tracer_element;

typedef struct tracer_tree_node {
	int is_key_path; /* this node or one below it carries SQL or external data: never pruned */
	int level;       /* root 0 */
	tracer_element *tracer;
	struct tracer_tree_node *parent, *child, *sibling;
	/* private */
	struct tracer_tree_node *last_child; /* appending to a wide node must not walk its children */
} tracer_tree_node;

/* Zeroed element with copies of the names; `cls` may be null. It lies in a list node and its names after it, in one
 * block that is released by giving it to zq_trace_append(). */
tracer_element *tracer_element_alloc(const char *cls, const char *func);
void tracer_element_dtor(void *ele); /* frees filename; not data, not the block */
/* For zend_llist_sort: 1 when f belongs after s (later start; on equal starts the earlier end; on equal
 * spans the one appended first), else 0. */
int tracer_element_cmp(const zend_llist_element **f, const zend_llist_element **s TSRMLS_DC);
/* Logs once per action, at DEBUG, that `what` (plural) has reached its bound. */
void zq_note_recorded_limit(const char *what TSRMLS_DC);
/* 1 when nothing more may be added to `tracer`: no list, or 100,000 elements, or as
 * many as take a quarter of the script's memory limit (noted in the log once). */
int zq_trace_is_full(TSRMLS_D);
/* Appends the element unless the trace is full; adopts its block in either case. */
void zq_trace_append(tracer_element *element TSRMLS_DC);
/* Appends a call with file and line when its whole milliseconds reach action_tracer_stack_trace_threshold; nothing when
 * the trace is full. `data_frame` is the frame that made the call. The callers test the threshold for being traced. */
void zq_trace_call(const char *cls, const char *func, zend_execute_data *data_frame, uint64 begin_us, uint64 end_us,
	int data_type, void *data TSRMLS_DC);

/* ---- zqp_tracer_tree.cpp ---- */
/* Appends the tree of `tracer_list` (sorted by start) as JSON. `duration_ms` is the action's. */
void tracer_list_to_json(int duration_ms, zend_llist *tracer_list, smart_str *msg TSRMLS_DC);
/* Appends one node with its children; 1 when written, 0 when pruned. */
int output_tracer_tree(smart_str *msg, tracer_tree_node *node, int threshold, int is_first_node TSRMLS_DC);

/* ---- zqp_tracer_sql_name.cpp: purely lexical, no parser ---- */
enum { ZQ_MAX_STATEMENT = 16384 }; /* bytes; longer ones are cut */
/* Copy without comments and with white space squeezed, quoted text kept; cut at ZQ_MAX_STATEMENT bytes. */
char *rm_comment(const char *statement);
/* The same into `out`, which has room for `most` bytes and a NUL; returns the length. */
size_t zq_clean_statement(const char *statement, size_t most, char *out);
/* "Database <db>/<table>/<operation>". */
char *metric_name_from_sql(const sql_element *sql);
int isSpace(char ch); /* 1 for bytes 0x01 to 0x20 */
/* The scanners return positions in the text they are given; lengths through the second argument. */
const char *find_word(const char *token, int *token_len);
const char *find_table(const char *stmt, const char *pre_word, int *table_len);
const char *sub_select(const char *stmt);

#endif
