/* Call stacks as JSON arrays of short strings, from the frames that run now or from what an exception remembers. While
 * the daemon asks for details, the frames that JSON has only in part stand after the array as they were. */
#include "zqp_helper.h"
#include "zqp_json.h"

/* Backtraces of the running code are cut here; an exception's own trace is as long as it was made. */
static const int max_frames = 20;
/* The walk makes one entry of two frames at most, and may leave out the first. */
static const int walked_frames = 2 * max_frames + 2;
/* Of frames that stand after the array, this many are told apart, and this many bytes of each are kept. */
static const unsigned MOST_FRAMES = 255;
static const size_t MOST_FRAME = 4096;

typedef void (*text_writer)(smart_str *buf, zval *text);

static void append_escaped(smart_str *buf, zval *text)
{
	json_escape_string(buf, Z_STRVAL_P(text), Z_STRLEN_P(text), 0);
}

static void append_as_it_is(smart_str *buf, zval *text)
{
	zq_append(buf, Z_STRVAL_P(text), strnlen(Z_STRVAL_P(text), Z_STRLEN_P(text)));
}

/* Entry of a frame when it has the wanted type, else null. */
static zval *frame_entry(HashTable *frame, const char *key, uint key_size, zend_uchar type)
{
	zval *value = FIND_HASH_ZVALUE(frame, key, key_size);
	return value && Z_TYPE_P(value) == type ? value : NULL;
}

/* "(file:line)"; nothing without a file. */
static void append_place(smart_str *buf, zval *file, zval *line, text_writer append_text)
{
	if (!file) {
		return;
	}
	zq_append_char(buf, '(');
	append_text(buf, file);
	if (line) {
		zq_append_char(buf, ':');
		zq_append_long(buf, Z_LVAL_P(line));
	}
	zq_append_char(buf, ')');
}

/* Table of an array or object; null for other values. */
static HashTable *table_of(zval *val TSRMLS_DC)
{
	if (!val) {
		return NULL;
	}
	return Z_TYPE_P(val) == IS_ARRAY ? Z_ARRVAL_P(val) : zq_property_table(val TSRMLS_CC);
}

/* class.function(file:line), parts as present. */
static void append_frame(smart_str *buf, HashTable *frame, text_writer append_text)
{
	zval *cls = frame_entry(frame, "class", sizeof("class"), IS_STRING);
	if (cls) {
		append_text(buf, cls);
		zq_append_char(buf, '.');
	}
	zval *function = frame_entry(frame, "function", sizeof("function"), IS_STRING);
	if (function) {
		append_text(buf, function);
	}
	append_place(buf, frame_entry(frame, "file", sizeof("file"), IS_STRING),
		frame_entry(frame, "line", sizeof("line"), IS_LONG), append_text);
}

void zq_get_stack_object_json(smart_str *buf, zval *val TSRMLS_DC)
{
	HashTable *frame = table_of(val TSRMLS_CC);
	if (!frame) {
		zq_append(buf, "null", 4);
		return;
	}
	zq_append_char(buf, '"');
	append_frame(buf, frame, append_escaped);
	zq_append_char(buf, '"');
}

/* Appends every frame of a backtrace, a "," before each but the first, before that too when `continued`. */
static void append_frames(smart_str *buf, HashTable *frames, int continued TSRMLS_DC)
{
	for (Bucket *at = frames->pListHead; at; at = at->pListNext) {
		if (continued) {
			zq_append_char(buf, ',');
		}
		continued = 1;
		zq_get_stack_object_json(buf, *(zval **)at->pData TSRMLS_CC);
	}
}

/* ---- frames that JSON has only in part: the number and 1 as a byte, the text, NUL ---- */

static size_t begin_whole_frame(smart_str *buf, unsigned number)
{
	zq_append_char(buf, (char)(number + 1));
	return buf->len;
}

/* Takes back the frame whose text begins at `start` when JSON has all of it. */
static void end_whole_frame(smart_str *buf, size_t start)
{
	size_t len = buf->len - start;
	if (zq_json_keeps(buf->c + start, len)) {
		buf->len = start - 1;
		return;
	}
	buf->len = start + (len < MOST_FRAME ? len : MOST_FRAME);
	zq_append_char(buf, '\0');
}

/* Of a backtrace whose first frame has this number in the array. */
static void append_whole_frames(smart_str *buf, HashTable *frames, unsigned number TSRMLS_DC)
{
	for (Bucket *at = frames->pListHead; at && number < MOST_FRAMES; at = at->pListNext, number++) {
		if (HashTable *frame = table_of(*(zval **)at->pData TSRMLS_CC)) {
			size_t start = begin_whole_frame(buf, number);
			append_frame(buf, frame, append_as_it_is);
			end_whole_frame(buf, start);
		}
	}
}

size_t zq_stack_size(const char *stack)
{
	const char *at = stack + strlen(stack) + 1;
	while (*at) {
		at += strlen(at) + 1;
	}
	return (size_t)(at + 1 - stack);
}

/* ---- the running code ---- */

/* Frame whose operation a pending exception has replaced by its own, which has no line; null when there is none. */
static zend_execute_data *interrupted_frame(TSRMLS_D)
{
	zend_execute_data *at = EG(exception) && EG(opline_before_exception) ? EG(current_execute_data) : NULL;
	while (at && !(at->opline && at->opline->opcode == ZEND_HANDLE_EXCEPTION)) {
		at = at->prev_execute_data;
	}
	return at;
}

static int calls_nobody(const zend_execute_data *frame)
{
	return frame->op_array && frame->function_state.function == (const zend_function *)frame->op_array;
}

/* A frame that calls nobody right now keeps the object of its last call. That one may be gone, and the engine's walk
 * would take a class from it: an error between two calls. The walk is kept from seeing it; afterwards it is there
 * again, for the traces that the script makes. */
static void hide_past_objects(zval **hidden TSRMLS_DC)
{
	int i = 0;
	for (zend_execute_data *at = EG(current_execute_data); at && i < walked_frames; at = at->prev_execute_data, i++) {
		if (calls_nobody(at)) {
			hidden[i] = at->object;
			at->object = NULL;
		}
	}
}

static void show_past_objects(zval *const *hidden TSRMLS_DC)
{
	int i = 0;
	for (zend_execute_data *at = EG(current_execute_data); at && i < walked_frames; at = at->prev_execute_data, i++) {
		if (calls_nobody(at)) {
			at->object = hidden[i];
		}
	}
}

void zq_get_code_stack(smart_str *buf TSRMLS_DC)
{
	zval frames, *hidden[walked_frames];
	zend_execute_data *interrupted = interrupted_frame(TSRMLS_C);
	zend_op *exception_op = interrupted ? interrupted->opline : NULL;
	INIT_ZVAL(frames);
	zq_append_char(buf, '[');
	hide_past_objects(hidden TSRMLS_CC);
	if (interrupted) {
		interrupted->opline = EG(opline_before_exception);
	}
	zend_fetch_debug_backtrace(&frames, 0, DEBUG_BACKTRACE_IGNORE_ARGS, max_frames TSRMLS_CC);
	if (interrupted) {
		interrupted->opline = exception_op;
	}
	show_past_objects(hidden TSRMLS_CC);
	HashTable *table = Z_TYPE(frames) == IS_ARRAY ? Z_ARRVAL(frames) : NULL;
	if (table) {
		append_frames(buf, table, 0 TSRMLS_CC);
	}
	zq_append(buf, "]", sizeof("]"));
	if (table && ZQG(details_wanted)) {
		append_whole_frames(buf, table, 0 TSRMLS_CC);
	}
	zval_dtor(&frames);
}

char *zq_code_stack_text(TSRMLS_D)
{
	smart_str buf = {};
	zq_get_code_stack(&buf TSRMLS_CC);
	return zq_buffer_text(&buf);
}

/* ---- exceptions ---- */

/* Where an exception was made. Read from the table, so that no __get runs: protected as Exception declares it, or under
 * the plain name when a class made it public. */
static zval *exception_entry(HashTable *properties, const char *mangled, uint mangled_size, zend_uchar type)
{
	const uint prefix_len = sizeof("\0*\0") - 1;
	zval *value = frame_entry(properties, mangled, mangled_size, type);
	return value ? value : frame_entry(properties, mangled + prefix_len, mangled_size - prefix_len, type);
}

/* A __call answers to that name too, and does whatever it does. */
static int declares_get_trace(zval *object TSRMLS_DC)
{
	return zend_hash_exists(&Z_OBJCE_P(object)->function_table, ZEND_STRS("gettrace"));
}

void zq_get_exception_stack(zval *exception, smart_str *buf TSRMLS_DC)
{
	zq_append_text(buf, "[\"Exception");
	HashTable *properties = zq_property_table(exception TSRMLS_CC);
	zval *file = exception_entry(properties, "\0*\0file", sizeof("\0*\0file"), IS_STRING);
	zval *line = exception_entry(properties, "\0*\0line", sizeof("\0*\0line"), IS_LONG);
	if (file && Z_STRLEN_P(file) > 0) {
		append_place(buf, file, line, append_escaped);
	}
	zq_append_char(buf, '"');
	smart_str whole = {};
	if (file && ZQG(details_wanted)) {
		size_t start = begin_whole_frame(&whole, 0);
		zq_append_text(&whole, "Exception");
		append_place(&whole, file, line, append_as_it_is);
		end_whole_frame(&whole, start);
	}
	zval frames;
	if (exception && Z_TYPE_P(exception) == IS_OBJECT && declares_get_trace(exception TSRMLS_CC)) {
		HashTable *table = zq_call_named(exception, "getTrace", &frames, 0, NULL TSRMLS_CC) == SUCCESS
			? table_of(&frames TSRMLS_CC)
			: NULL;
		if (table) {
			append_frames(buf, table, 1 TSRMLS_CC);
		}
		if (table && ZQG(details_wanted)) {
			append_whole_frames(&whole, table, 1 TSRMLS_CC);
		}
		zq_release_result(&frames TSRMLS_CC);
	}
	zq_append(buf, "]", sizeof("]"));
	zq_append(buf, whole.c, whole.len);
	zq_buffer_free(&whole);
}

/* ---- places ---- */

int zq_calling_place(zend_execute_data *data, const char **filename TSRMLS_DC)
{
	*filename = NULL;
	while (data && !data->op_array) {
		data = data->prev_execute_data;
	}
	if (!data) {
		return 0;
	}
	*filename = data->op_array->filename;
	const zend_op *opline = data->opline;
	/* a pending exception has put its own opline there, which has no line */
	if (opline && opline->opcode == ZEND_HANDLE_EXCEPTION && EG(opline_before_exception)) {
		opline = EG(opline_before_exception);
	}
	return opline ? (int)opline->lineno : 0;
}

int zq_calling_line(zend_execute_data *data, char **filename TSRMLS_DC)
{
	const char *borrowed;
	int lineno = zq_calling_place(data, &borrowed TSRMLS_CC);
	if (filename) {
		*filename = borrowed ? estrdup(borrowed) : NULL;
	}
	return lineno;
}
