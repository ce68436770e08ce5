/* What PHP 7 and later will not run as PHP 5.6 does, and which functions are called at all: noted once per file, line
 * and process, and again when an hour has passed, so that the daemon knows when it was last seen. Only while the daemon
 * asks for it; no call of a function that no rule names costs more for it. */
#ifndef ZQP_RADAR_H
#define ZQP_RADAR_H

#include <stdarg.h>

#include "zqp_helper.h"
#include "zqp_radar_names.h"

/* Of a record of the radar: its items, and how sure it is that a site runs. */
enum { ZQ_RADAR_FILE = 0x01, ZQ_RADAR_SITE = 0x02, ZQ_RADAR_FUNCTION = 0x03 };
enum { ZQ_RADAR_COMPILED = 0, ZQ_RADAR_RAN = 1 };
inline constexpr size_t ZQ_RADAR_MOST_BYTES = 256 << 10; /* of the record's body */

/* In the flags of an internal function of this thread's function table, in a bit that the engine has no use for: a rule
 * names the function. The hook tests it in one with ZEND_ACC_CALL_VIA_HANDLER. */
inline constexpr zend_uint ZQ_ACC_ON_RADAR = 0x80000000u;
/* Beside it: no row handles calls of the function, as the hook has found out. */
inline constexpr zend_uint ZQ_ACC_NO_ROW = 0x40000000u;

/* Where something was found. */
struct zq_radar_place {
	const char *file; /* borrowed; the same pointer for all code of one file until request end */
	uint line;
	const zend_op_array *code; /* in which function; null: not known */
};

/* A call that a request has made already. */
struct zq_radar_call {
	const zend_op *opline;
	const zend_function *callee;
	uint64 line; /* below the number of the request */
};
/* A file's name, known by its address in the request, and its hash. */
struct zq_radar_file {
	const char *name;
	uint64 hash;
};
inline constexpr unsigned ZQ_RADAR_MOST_CALLS = 64, ZQ_RADAR_MOST_FILES = 4; /* powers of two */

/* Of one thread; malloc's. */
struct zq_radar {
	size_t len;
	uint64 file;      /* hash of the file that the items at the end belong to; 0: none */
	uint64 called_us; /* when it was last noted which functions were called */
	bool has_marked;  /* this thread's functions bear their flag */
	bool has_unread;  /* the text of a file had to wait */
	bool reads_again; /* of an earlier request's: they are looked for */
	size_t text_left; /* bytes that this request may still read */
	zq_radar_file files[ZQ_RADAR_MOST_FILES];
	uint64 request; /* its number, above 32 bits of 0 */
	zq_radar_call calls[ZQ_RADAR_MOST_CALLS];
	char items[ZQ_RADAR_MOST_BYTES];
};

/* Starts a request: as the configuration of the action that begins asks. */
void zq_radar_begin(TSRMLS_D);
/* Notes which functions of the request were called: at its end; when an action of a command-line run ends, but not more
 * often than every ten seconds. */
void zq_radar_end(TSRMLS_D);
void zq_radar_end_action(TSRMLS_D);
/* Frees what the thread keeps, which may be another one's. */
void zq_radar_free(zend_zqprof_globals *g);

/* What this thread has noted and not sent yet, as items; the length is 0 when there is nothing. Borrowed. */
const char *zq_radar_items(size_t *len TSRMLS_DC);
/* Forgets these items, which are on their way. */
void zq_radar_sent(TSRMLS_D);

/* True when no thread of the process has noted it in this hour, and there was room to remember it. */
bool zq_radar_is_new(uint64 what);
/* A number that differs when one of these does. */
static inline uint64 zq_radar_mix(uint64 a, uint64 b)
{
	uint64 mixed = (a ^ (b + 0x9E3779B97F4A7C15u + (a << 6) + (a >> 2))) * 0xBF58476D1CE4E5B9u;
	return mixed ^ mixed >> 29;
}
/* Hash of the file's name; that of some is kept until request end. */
uint64 zq_radar_hash_another(zq_radar_file *kept, const char *file);
static inline uint64 zq_radar_hash_file(zq_radar *radar, const char *file)
{
	zq_radar_file *kept = &radar->files[((uintptr_t)file >> 4) % ZQ_RADAR_MOST_FILES];
	return EXPECTED(kept->name == file) ? kept->hash : zq_radar_hash_another(kept, file);
}
/* False when what is noted next may find no room, so that it had better be noted by a later request. */
bool zq_radar_has_room(TSRMLS_D);
uint64 zq_radar_hash(std::string_view text);
/* Notes a site, once. There has to be a rule for that sign and name; `evidence` as above. `name_id` stands for the name
 * as long as the process lives: where it is, or its hash, but always the same for the same sign and evidence. */
void zq_radar_note(
	zq_radar_sign sign, std::string_view name, uint64 name_id, const zq_radar_place *at, int evidence TSRMLS_DC);
/* Notes a function of the script, once each as compiled and as called. */
void zq_radar_note_function(const zend_op_array *code, int was_called TSRMLS_DC);

/* A call of a function with ZQ_ACC_ON_RADAR in its flags, unless this is 1: the request has made that call before. It
 * is known by the place of its opcode, which is the script's while that runs; code that is freed and made anew within a
 * request would have to have the same call there, on the same line. */
static inline int zq_radar_has_made(const zend_execute_data *frame TSRMLS_DC)
{
	const zq_radar *radar = ZQG(radar);
	const zend_op *opline = frame->opline; /* null in a call that the engine makes on its own */
	const zq_radar_call *call = &radar->calls[((uintptr_t)opline >> 4) % ZQ_RADAR_MOST_CALLS];
	return opline && call->opline == opline && call->callee == frame->function_state.function &&
		call->line == (radar->request | opline->lineno);
}
void zq_radar_called(zend_execute_data *frame TSRMLS_DC);
/* True when an error of that format was raised on that line before, by this process and within the hour. */
bool zq_radar_has_raised(const char *file, uint line, const char *format TSRMLS_DC);

/* ---- zqp_radar_errors.cpp ---- */
/* PHP 5.6 raises an error: is it one that is another in later versions? `args` is left as it is. */
void zq_radar_error(int type, const char *file, uint line, const char *format, va_list args TSRMLS_DC);

/* ---- zqp_radar_scan.cpp ---- */

/* Notes what was seen in compiled code, if there is a rule for that sign and name. */
void zq_radar_note_compiled(zq_radar_sign sign, std::string_view name, const zq_radar_place *at TSRMLS_DC);
/* Looks at the code of a function, or at that of a file outside of its functions. */
void zq_radar_scan_code(const zend_op_array *code TSRMLS_DC);

/* ---- zqp_radar_file.cpp ---- */

/* Functions and classes of a thread before a file is compiled. */
struct zq_radar_tables {
	uint functions, classes;
};
/* Looks at a file that was compiled or came from a cache of compiled files, once; nothing of it is changed. `before` as
 * the tables were then. */
void zq_radar_scan(const zend_op_array *code, zq_radar_tables before TSRMLS_DC);
static inline zq_radar_tables zq_radar_tables_now(TSRMLS_D)
{
	return {CG(function_table)->nNumOfElements, CG(class_table)->nNumOfElements};
}
/* Calls each(bucket) for those of a table that have come since it had so many, the last first. */
template <typename Each>
static inline void zq_radar_each_new(const HashTable *table, uint before, Each each)
{
	const Bucket *at = table->pListTail;
	for (uint left = table->nNumOfElements > before ? table->nNumOfElements - before : 0; left && at; left--) {
		each(at);
		at = at->pListLast;
	}
}

/* ---- zqp_radar_source.cpp ---- */

/* Notes what only the text of the file shows, of which the tables have had the functions and classes since `before`.
 * Gives how many bytes were read. */
size_t zq_radar_read_source(const char *file, zq_radar_tables before TSRMLS_DC);

#endif
