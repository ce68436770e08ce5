/* What the other records of a packet round off, cut or leave out: sums in microseconds, counts, the places in the
 * script's code that ran its statements, texts as they were. Kept only while the daemon asks for it. */
#ifndef ZQP_DETAILS_H
#define ZQP_DETAILS_H

#include "zqp_helper.h"

/* Where statements ran, and whose database it was. */
typedef struct zq_place {
	const char *file;   /* the op array's, so that one file has one pointer until request end; null: not known */
	const void *source; /* what the vendor is known by: its static name, or PDO's driver */
	const char *vendor; /* lives as long as the module that has it */
	uint line;
} zq_place;

inline constexpr unsigned ZQ_MOST_PLACES = 4096, ZQ_NO_PLACE = 0xFFFF;

/* Items of the record whose texts are made while the action runs or its trace is written. */
typedef enum { ZQ_WHOLE_CLASS = 1, ZQ_WHOLE_FUNCTION, ZQ_WHOLE_STATEMENT } zq_whole_field;
typedef struct zq_whole_text {
	struct zq_whole_text *next;
	unsigned number; /* of the component or trace node, in the packet's order, from 0 */
	int field;       /* zq_whole_field; 0: a component's name */
	size_t len;
	char text[1]; /* `len` bytes */
} zq_whole_text;

/* Of one action: the globals' `details`, null when nobody asks. Request memory. */
typedef struct zq_details {
	uint64 database_us, services_us;
	unsigned statements, services; /* calls, also those whose texts were not kept */
	uint64 user_us, system_us;     /* processor time of the thread when the action began */
	uint64 output_bytes;
	zq_place last; /* the place of the last statement, and its number */
	unsigned last_number;
	const zend_module_entry *pdo; /* PDO's, when a statement has come by it */
	zq_place *places;
	uint16_t *slots; /* numbers of places by hash; ZQ_NO_PLACE: free */
	unsigned place_count, slot_count;
	zq_whole_text *texts; /* the last first */
	size_t text_bytes;
	unsigned trace_nodes; /* written so far */
} zq_details;

/* Starts or ends keeping details: as the configuration of the action that begins asks, and with the action. */
void zq_details_begin(TSRMLS_D);
void zq_details_end(TSRMLS_D);

/* zq_details_place() for another place than the last. */
unsigned zq_details_other_place(zq_details *details, const zq_place *place, const char *(*vendor_of)(const void *));
/* Number of the place that `frame` runs, new when it is the first time; ZQ_NO_PLACE when there are too many. `source`
 * is what the vendor is known by, and vendor_of() gives its name; null: it is the name. */
static inline unsigned zq_details_place(
	zq_details *details, zend_execute_data *frame, const void *source, const char *(*vendor_of)(const void *)TSRMLS_DC)
{
	while (frame && UNEXPECTED(!frame->op_array)) {
		frame = frame->prev_execute_data;
	}
	const zend_op *opline = frame ? frame->opline : NULL;
	if (UNEXPECTED(opline && opline->opcode == ZEND_HANDLE_EXCEPTION)) {
		opline = EG(opline_before_exception);
	}
	zq_place place = {frame ? frame->op_array->filename : NULL, source, NULL, opline ? opline->lineno : 0};
	const zq_place *last = &details->last;
	if (EXPECTED(last->line == place.line && last->file == place.file && last->source == source)) {
		return details->last_number;
	}
	return zq_details_other_place(details, &place, vendor_of);
}

/* Keeps a text that was cut: `number` and `field` as above. Up to 16,384 bytes of it, and 128 KiB together. */
void zq_details_keep_text(zq_details *details, unsigned number, int field, const char *text, size_t len);

/* Processor time of the calling thread in us; 0 when the kernel does not tell. */
void zq_thread_times(uint64 *user_us, uint64 *system_us);

#endif
