/* What the other records of a packet round off, cut or leave out: sums in microseconds, counts, the places in the
 * script's code that ran its statements, texts as they were. Kept only while the daemon asks for it. */
#ifndef ZQP_DETAILS_H
#define ZQP_DETAILS_H

#include "zqp_helper.h"

/* Where statements ran, who called that code, and whose database it was. */
typedef struct zq_place {
	const char *file;   /* the op array's, so that one file has one pointer until request end; null: not known */
	const void *source; /* what the vendor is known by: its static name, or PDO's driver */
	const char *vendor; /* lives as long as the module that has it */
	uint line;
	uint caller_line;
	const char *caller; /* the file of the frame that zq_calling_frame() finds; null: there is none */
} zq_place;

inline constexpr unsigned ZQ_MOST_PLACES = 4096, ZQ_NO_PLACE = 0xFFFF;

/* Items of the record whose texts are made while the action runs or its trace is written. */
typedef enum {
	ZQ_WHOLE_CLASS = 1,
	ZQ_WHOLE_FUNCTION,
	ZQ_WHOLE_STATEMENT,
	ZQ_WHOLE_FRAME /* of the node's stack or place, the first; those after it follow */
} zq_whole_field;
typedef struct zq_whole_text {
	struct zq_whole_text *next;
	unsigned number; /* of the component or trace node, in the packet's order, from 0 */
	int field;       /* zq_whole_field; 0: a component's name */
	size_t len;
	char text[1]; /* `len` bytes */
} zq_whole_text;

/* The last call that ran a statement and may be told by its operation: one in a function, which stays where it is until
 * request end. Included and evaluated code does not. */
typedef struct zq_last_call {
	const zend_op *opline;
	const void *kind;   /* what its recorder knows its kind by; null: there is no such call */
	const void *source; /* as in its place, and the next two */
	const char *caller;
	uint caller_line;
	unsigned place;
} zq_last_call;

/* Of one action: the globals' `details`, null when nobody asks. Request memory. */
typedef struct zq_details {
	uint64 database_us, services_us;
	unsigned unlisted_statements, services; /* calls; of statements those that `sqls` does not have */
	uint64 user_us, system_us;              /* processor time of the thread when the action began */
	uint64 output_bytes;
	zq_last_call last;
	const zend_objects_store *objects; /* the thread's: asked for at each statement */
	zq_place *places;
	uint16_t *slots; /* numbers of places by hash; ZQ_NO_PLACE: free */
	unsigned place_count, slot_count;
	zq_whole_text *texts; /* the last first */
	size_t text_bytes;
	unsigned trace_nodes;             /* written so far */
	struct zq_trace_context *context; /* owned; null: nobody asks for it */
} zq_details;

/* Starts or ends keeping details: as the configuration of the action that begins asks, and with the action. */
void zq_details_begin(TSRMLS_D);
void zq_details_end(TSRMLS_D);

/* Whoever uses the code that `frame` runs, which must be a function's: the first frame outward, of so many, that
 * belongs to another class, or, of a function without a class, to another file. Database layers run every statement on
 * one line, and this is the line that somebody can change. Code that includes the callee's file calls nothing. Null:
 * none. */
static inline const zend_execute_data *zq_calling_frame(const zend_execute_data *frame)
{
	const unsigned most_frames = 16;
	const zend_class_entry *scope = frame->op_array->scope;
	const char *file = frame->op_array->filename;
	const zend_execute_data *at = frame->prev_execute_data;
	for (unsigned level = 0; at && level < most_frames; at = at->prev_execute_data, level++) {
		const zend_op_array *code = at->op_array; /* null: PHP's own function, which calls back */
		if (code && (scope ? code->scope != scope : code->filename != file) && EXPECTED(at->opline != NULL) &&
			at->opline->opcode != ZEND_INCLUDE_OR_EVAL) {
			return at;
		}
	}
	return NULL;
}

/* True when `frame` makes the same call of that kind as the last statement's, on behalf of the same caller, so that its
 * place is `last.place` unless its source is another. */
static inline bool zq_is_last_call(const zq_details *details, const zend_execute_data *frame, const void *kind)
{
	if (UNEXPECTED(details->last.kind != kind) || UNEXPECTED(details->last.opline != frame->opline)) {
		return false;
	}
	const zend_execute_data *caller = zq_calling_frame(frame);
	return caller
		? caller->op_array->filename == details->last.caller && caller->opline->lineno == details->last.caller_line
		: !details->last.caller;
}
/* Fills in file, line and caller of the code that makes the call of `frame`. */
void zq_details_locate(zq_place *place, zend_execute_data *frame TSRMLS_DC);
/* Number of the place that `frame` runs, new when it is the first time; ZQ_NO_PLACE when there are too many. `source`
 * is what the vendor is known by, and vendor_of() gives its name; null: it is the name. Remembers the call as the last
 * one if it can be, when `kind` is given. */
unsigned zq_details_place(zq_details *details, zend_execute_data *frame, const void *kind, const void *source,
	const char *(*vendor_of)(const void *)TSRMLS_DC);

/* Number of a place by its file, line, caller and source. */
unsigned zq_details_add_place(zq_details *details, const zq_place *place, const char *(*vendor_of)(const void *));

/* Keeps a text that was cut: `number` and `field` as above. Up to 16,384 bytes of it, and 128 KiB together. */
void zq_details_keep_text(zq_details *details, unsigned number, int field, const char *text, size_t len);

/* Processor time of the calling thread in us; 0 when the kernel does not tell. */
void zq_thread_times(uint64 *user_us, uint64 *system_us);

#endif
