/* What the hooks share: reading the arguments of an intercepted call, calling PHP code unseen, growing buffers, cutting
 * and cleaning strings, clocks and samplers, call stacks. No state of its own.
 *
 * Strings handed out are request memory owned by the caller (efree) unless a contract says "borrowed". Every helper
 * takes null input as "nothing there" and reports nothing. */
#ifndef ZQP_HELPER_H
#define ZQP_HELPER_H

#include "zqp_state.h"
#include "zqp_text.h"

/* ---- zqp_helper_args.cpp: the intercepted call ------------------------------------------------------------------ */
/* `data` is the frame that makes the call (it holds the callee and the arguments); arguments count from 0. A missing
 * frame, a missing argument or one of another type gives the neutral value: 0 or null. */

/* Slot of argument `arg_seq`, null when absent. The slot's value is shared with the script: never write into it. */
zval **zq_argument_slot(zend_execute_data *data, int arg_seq);
/* Puts `fresh` (MAKE_STD_ZVAL, given away) into the slot and releases what it held: the script's value is untouched. */
void zq_argument_replace(zval **slot, zval *fresh);
int get_arguments_count(zend_execute_data *data);
zval *get_argument_zval(zend_execute_data *data, int arg_seq);         /* borrowed */
long get_argument_long(zend_execute_data *data, int arg_seq);          /* no conversion */
char *get_argument_char(zend_execute_data *data, int arg_seq);         /* borrowed, engine's string */
char *get_reverse_argument_char(zend_execute_data *data, int arg_seq); /* 0 is the last argument; borrowed */
/* Name of a callable argument: a string's copy, or the parts of an array joined by "::" by position; null otherwise. */
char *get_argument_callback(zend_execute_data *data, int arg_seq TSRMLS_DC);
/* Appends the argument as JSON, "args" and "object" keys hidden. */
void get_argument_array(zend_execute_data *data, smart_str *buf, int arg_seq TSRMLS_DC);
/* All arguments as JSON separated by ",", arrays and objects leaving only their comma; null when that is empty. */
char *get_arguments(zend_execute_data *data TSRMLS_DC);

/* Value stored under `key` (`key_size` counts the NUL, as 5.6 does), borrowed; null when absent or `ht` is null. */
zval *FIND_HASH_ZVALUE(HashTable *ht, const char *key, uint key_size);
/* Pointer stored under `key` in a table whose data are pointers, borrowed; null when absent or `ht` is null. */
void *FIND_HASH_PVALUE(HashTable *ht, const char *key, uint key_size);
/* The hash under which the engine's tables keep a literal key, its NUL included. */
template <size_t size>
consteval ulong zq_key_hash(const char (&key)[size])
{
	ulong hash = 5381;
	for (char byte : key) {
		hash = hash * 33 + (ulong)byte;
	}
	return hash;
}
/* Text of a $_SERVER entry as the server gave it, whatever the script did to its own copy; borrowed, null when absent
 * or no string. ZQ_SERVER_TEXT takes the key as a literal. */
const char *zq_server_text(const char *key, uint key_size, ulong key_hash TSRMLS_DC);
#define ZQ_SERVER_TEXT(key) zq_server_text(key, sizeof(key), zq_key_hash(key) TSRMLS_CC)
/* Option of wrapper "http" in a stream context, borrowed; null when not set. */
zval *GET_CONTEXT_HTTP_OPTION(php_stream_context *context, const char *option);
/* First string-keyed entry of an array value whose key equals `search_name` (size with NUL) ignoring case: its
 * characters when it is a string; borrowed. */
char *get_hash_value_by_name(zval *hash, const char *search_name, uint search_size);
/* "HTTP_" and the header name as its server variable is spelt, at most 127 characters, ASCII rules. */
char *get_server_key(const char *key);
/* Declared and dynamic properties of an object, borrowed; null for anything else, and for an object of a class that
 * makes its table up on demand. Never runs PHP code and never changes the object. */
HashTable *zq_property_table(zval *object TSRMLS_DC);
/* The one property that the engine's class declares which the object of a call is of or extends; borrowed. Null
 * when it is unset, and for an object whose class has a way of its own of reading properties. Never runs PHP code and
 * never changes the object. */
static inline zval *zq_only_property(zval *object TSRMLS_DC)
{
	if (!object || Z_OBJ_HT_P(object)->read_property != std_object_handlers.read_property) {
		return NULL;
	}
	/* zend_objects_get_address(), inlined */
	const zend_object *self = (zend_object *)EG(objects_store).object_buckets[Z_OBJ_HANDLE_P(object)].bucket.obj.object;
	const zend_class_entry *declares = self->ce;
	while (declares->type != ZEND_INTERNAL_CLASS && declares->parent) {
		declares = declares->parent;
	}
	/* what a class inherits comes before what it declares itself, and a declaration anew keeps its place */
	if (!self->properties_table || declares->type != ZEND_INTERNAL_CLASS || declares->default_properties_count != 1) {
		return NULL;
	}
	/* 5.6 keeps declared properties in a table of their own; once the object has a hash of all, it points into that */
	zval **slot = self->properties ? (zval **)self->properties_table[0] : &self->properties_table[0];
	return slot ? *slot : NULL;
}

/* ---- zqp_helper_call.cpp: PHP code called by the agent -------------------------------------------------------------
 */
/* Calls PHP code on a frame of its own with the hooks off, so that the call is neither measured nor able to touch the
 * script's frames, handlers, exceptions or errors. `object` may be null. `retval` is always initialised; the caller
 * releases it (zval_dtor for scalars, else zq_release_result). SUCCESS, or FAILURE when not callable, when it threw
 * (the exception is swallowed) or for more than 8 parameters. Parameters must be heap zvals, since callees may keep
 * them. A bailout of the callee is raised again after everything was put back.
 * `function_table` is accepted for symmetry with the engine's call_user_function. */
int zq_call_user_function(HashTable *function_table, zval **object, zval *function_name, zval *retval,
	zend_uint param_count, zval **params TSRMLS_DC);
/* The same for a function, or a method of `object`, given by name; a function's is found faster in lower case.
 * "Class::method" names the method of that class even where the object's own class overrides it: the script's code does
 * not run. */
int zq_call_named(zval *object, const char *function, zval *retval, zend_uint param_count, zval **params TSRMLS_DC);
/* Copies a property into `retval` as quietly, through the class's own handler, as `scope` sees it (null: the object's
 * own class); SUCCESS, or FAILURE when it is no object or cannot be read. `retval` is always initialised and released
 * as above. */
int zq_read_property(zend_class_entry *scope, zval *object, const char *property, zval *retval TSRMLS_DC);
/* zval_dtor with the hooks off: the last reference to an object runs its destructor, which may leave by a bailout. */
void zq_release_result(zval *result TSRMLS_DC);
/* 1 when PHP code that calls our own function `name` reaches it: an operator may have disabled it like any function,
 * and its stand-in prints a warning. */
int zq_callback_works(const char *name TSRMLS_DC);
/* Registers the shutdown function, and for a monitored caller the header callback, of this request. */
void register_transaction_callback(TSRMLS_D);

/* ---- the script's memory limit (header only) --------------------------------------------------------------------- */
/* What the agent builds must not be what trips it. A bailout in between is no harm: the engine puts the limit back. */
static inline void zq_lift_memory_limit(TSRMLS_D)
{
	zend_set_memory_limit((size_t)-1);
}
static inline void zq_restore_memory_limit(TSRMLS_D)
{
	zend_set_memory_limit((size_t)PG(memory_limit));
}
/* Bytes that one of an action's lists may take: 32 MiB, twice what a packet can hold, but never more than a quarter of
 * what the script may use. */
static inline size_t zq_most_recorded_bytes(TSRMLS_D)
{
	const size_t most = 32u << 20;
	return PG(memory_limit) > 0 && (size_t)PG(memory_limit) / 4 < most ? (size_t)PG(memory_limit) / 4 : most;
}

/* ---- growing buffers (header only) ------------------------------------------------------------------------------- */
/* The engine's smart_str, whose macros do not compile as C++. `c` is null until something was appended. Growth is by
 * half the size and at least 128 bytes, so that a 16 MiB packet costs linear time. */
/* Room for `len` more bytes, which the caller writes after the text and adds to its length. */
static inline void zq_reserve(smart_str *dest, size_t len)
{
	size_t needed = dest->len + len;
	if (!dest->c || needed >= dest->a) {
		size_t extra = needed / 2 < 128 ? 128 : needed / 2;
		dest->c = (char *)safe_erealloc(dest->c, 1, needed, extra);
		dest->a = needed + extra;
	}
}
static inline void zq_append(smart_str *dest, const char *text, size_t len)
{
	zq_reserve(dest, len);
	if (len) {
		memcpy(dest->c + dest->len, text, len);
	}
	dest->len += len;
}
static inline void zq_append_char(smart_str *dest, char ch)
{
	zq_append(dest, &ch, 1);
}
/* A null text counts as empty. */
static inline void zq_append_text(smart_str *dest, const char *text)
{
	if (text) {
		zq_append(dest, text, strlen(text));
	}
}
/* Decimal, with a minus sign for negatives. */
void zq_append_long(smart_str *dest, long number);
/* NUL-terminates and returns the text, never null; the caller owns it (efree). */
static inline char *zq_buffer_text(smart_str *dest)
{
	zq_append(dest, "", 1);
	dest->len--;
	return dest->c;
}
static inline void zq_buffer_free(smart_str *dest)
{
	if (dest->c) {
		efree(dest->c);
	}
	dest->c = NULL;
	dest->len = dest->a = 0;
}

/* ---- list nodes (header only) ------------------------------------------------------------------------------------ */
/* Data of `size` bytes inside a new node for an engine list, request memory: where the engine's own function would make
 * a copy of a record made elsewhere, one allocation does. zq_list_append() gives it to a list, efree(zq_list_node())
 * releases one that was not given away. */
static inline void *zq_list_new(size_t size)
{
	return ((zend_llist_element *)emalloc(offsetof(zend_llist_element, data) + size))->data;
}
static inline zend_llist_element *zq_list_node(void *data)
{
	return (zend_llist_element *)((char *)data - offsetof(zend_llist_element, data));
}
static inline zend_llist_element *zq_list_append(zend_llist *list, void *data)
{
	zend_llist_element *node = zq_list_node(data);
	node->prev = list->tail;
	node->next = NULL;
	*(list->tail ? &list->tail->next : &list->head) = node;
	list->tail = node;
	list->count++;
	return node;
}

/* ---- names as numbers (header only) ------------------------------------------------------------------------------ */
/* h = 5381; for each byte h = (h * 33) XOR byte, the byte sign-extended. Compile-time for labels; the request path
 * uses the same function, so both agree by construction. A hit is confirmed by length and bytes. */
constexpr uint64 zq_name_hash(const char *name, size_t len)
{
	uint64 h = 5381;
	for (size_t i = 0; i < len; i++) {
		h = (h * 33) ^ (uint64)(int64_t)(signed char)name[i];
	}
	return h;
}
template <size_t N>
constexpr uint64 zq_name_hash(const char (&name)[N])
{
	return zq_name_hash(name, N - 1);
}

/* ---- zqp_helper_string.cpp ----------------------------------------------------------------------------------------
 */
typedef struct cArray {
	char *string;   /* the copy that holds all pieces */
	int length;     /* number of pieces */
	char *items[1]; /* `length` pieces, NUL-terminated, pointing into `string`; same block */
} cArray;

/* In place. */
void zq_str_replace_ln(char *str);     /* characters 1 to 31 become a space */
void zq_str_replace_to_dot(char *str); /* "/" and "\" become "." */
void zq_obfuscate_sql(char *sql);      /* digits everywhere and quoted text become "?"; no escapes; same length */
/* Borrowed positions and tails. */
const char *zq_get_base_filename(
	const char *filename); /* after the second-last "/"; all of it when fewer; "" for null */
/* A raw response header line: 0 keeps the browser script out (a length, or a type other than HTML), 1 HTML, -1 neither.
 */
int get_header_content(const char *header);
/* Status of a status line ("http/1.", any case, anywhere); 0 when it is none. */
int get_header_status(const char *header);
/* New transaction id: the time-stamp counter's high and low half as "%x%x", 2 to 16 digits. */
char *get_new_GUID(void);
/* Text after the first `param` up to the next `split` or the end, possibly ""; null when absent. */
char *get_string_param(const char *string, const char *param, char split);
/* Copy of everything after the first "|"; null when there is none. */
char *get_application_and_instance_id(const char *secret_id);
/* 1 when `parent_secret_id` begins with the part of `cur_secret_id` before its first "|". */
int is_same_account(const char *cur_secret_id, const char *parent_secret_id);
/* Non-empty pieces of a copy of `str` cut at `split_char`; null for null or empty input. Freed with free_c_array. */
cArray *get_c_array(const char *str, char split_char);
void free_c_array(cArray *array);
/* Pieces by mode (0 tab/space/",", 1 "|", 2 ",", 3 space/"&"/"["/"]", 4 "&"/"?", other: all of it), ended by a null
 * pointer; a piece's leading bytes of 128 and above are dropped. Null for null or empty input; free_str_array. */
char **get_str_array(const char *str, int split_mode);
void free_str_array(char **array);
/* 1 when a line of `patterns` (extended regular expression, case ignored) matches in `url`. Lines that do not compile,
 * or that would exhaust the C library's compiler, are skipped. */
int in_urls_captured(const char *url, const char *patterns);
/* Appends a URL path to a name: "/" as "%2F", stop at "?", digit runs after the third slash as "*". */
void zq_append_web(smart_str *action, const char *str);
int zq_record_type_to_int(const char *str); /* "raw" 1, "obfuscated" 2, else 0; any case */

/* ---- zqp_helper_clock.cpp -----------------------------------------------------------------------------------------
 */
/* User + system ticks and resident KiB (each may be null) of a process or thread id; 0, or -1 with the outputs
 * untouched. A file that cannot be opened is logged. */
int get_usage(int pid, uint64 *cpu, long *mem);
/* The same line read once: user, system ticks and resident pages apart; 0 or -1. */
int zq_read_stat(int pid, uint64 *user_ticks, uint64 *system_ticks, long *resident_pages);
/* Percent of the host's memory in use; 0 when it cannot be read, which is logged. */
int get_memory_used(void);
/* The figure of get_memory_used() for a given text of /proc/meminfo; 0 without a usable total, which is logged as well.
 */
int zq_memory_used_of(const char *meminfo);
/* Milliseconds between a front end's queue stamp ("t=..." or "s=...") and `ms`, in 32-bit arithmetic, at least 0. */
int get_block_time(const char *queue_start, uint64 ms);
/* Kernel thread id of the caller. */
int zq_thread_id(void);

/* ---- zqp_helper_stack.cpp -----------------------------------------------------------------------------------------
 */
/* Appends one backtrace frame as the JSON string class.function(file:line), parts as present; null for no frame. */
void zq_get_stack_object_json(smart_str *buf, zval *val TSRMLS_DC);
/* A stack text is a JSON array and its NUL, then, while the daemon asks for details, the frames that the array has only
 * in part: for each a byte with its number in the array and 1, up to 255, the frame as it was, up to 4,096 bytes, and a
 * NUL; then one more NUL. These two append one but for the last NUL, which is zq_buffer_text()'s. */
/* The current call stack, innermost first, at most 20 frames. */
void zq_get_code_stack(smart_str *buf TSRMLS_DC);
/* An exception's own trace; it begins with "Exception(file:line)". */
void zq_get_exception_stack(zval *exception, smart_str *buf TSRMLS_DC);
/* Bytes of a stack text, all NULs included. */
size_t zq_stack_size(const char *stack);
/* The code stack as a stack text of its own. */
char *zq_code_stack_text(TSRMLS_D);
/* First frame from `data` outwards that runs compiled code: its line (of the faulting opline when an exception is
 * pending) and a copy of its file name into `filename` (null when unknown). Returns the line, 0 when unknown. */
int zq_calling_line(zend_execute_data *data, char **filename TSRMLS_DC);
/* The same with the file's name borrowed from the running code. */
int zq_calling_place(zend_execute_data *data, const char **filename TSRMLS_DC);

#endif
