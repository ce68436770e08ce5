/* A file for the radar, read once, whether it was just compiled or comes from opcache's memory: its code, and what it
 * declares. */
#include "zqp_radar.h"

namespace {

/* Closures are called as copies, and what has no cache of names leaves no trace of its calls. */
bool shows_its_calls(const zend_op_array *code)
{
	return code->last_cache_slot > 0 && !(code->fn_flags & (ZEND_ACC_CLOSURE | ZEND_ACC_ABSTRACT)) &&
		code->function_name;
}

/* `key`: a name that begins with NUL is a function's that is declared when its line runs. */
void scan_function(const Bucket *key, const zend_op_array *code TSRMLS_DC)
{
	zq_radar_scan_code(code TSRMLS_CC);
	if (shows_its_calls(code)) {
		zq_radar_note_function(code, 0 TSRMLS_CC);
	}
	if (!code->scope && *key->arKey && code->function_name && code->filename) {
		zq_radar_place place = {code->filename, code->line_start, code};
		zq_radar_note_compiled(ZQ_SIGN_FUNCTION_NAME, code->function_name, &place TSRMLS_CC);
	}
}

/* A method named like its class is its constructor, outside of namespaces. */
void scan_constructor(const zend_class_entry *ce TSRMLS_DC)
{
	const zend_function *constructor = ce->constructor;
	if (!constructor || constructor->type != ZEND_USER_FUNCTION || constructor->common.scope != ce ||
		strcasecmp(constructor->common.function_name, ce->name) != 0) {
		return;
	}
	zq_radar_place place = {constructor->op_array.filename, constructor->op_array.line_start, &constructor->op_array};
	zq_radar_note_compiled(ZQ_SIGN_SYNTAX, "constructor named like its class", &place TSRMLS_CC);
}

/* `key`: as of a function; a class that is declared when its line runs, mostly behind class_exists(), may have a name
 * that PHP has taken since. */
void scan_class(const Bucket *key TSRMLS_DC)
{
	const zend_class_entry *ce = *(zend_class_entry **)key->pData;
	if (ce->type != ZEND_USER_CLASS || !ce->info.user.filename) {
		return;
	}
	std::string_view name(ce->name, ce->name_length);
	size_t backslash = name.rfind('\\');
	zq_radar_place place = {ce->info.user.filename, ce->info.user.line_start, NULL};
	if (backslash == std::string_view::npos && *key->arKey) {
		zq_radar_note_compiled(ZQ_SIGN_CLASS_NAME, name, &place TSRMLS_CC);
	}
	zq_radar_note_compiled(ZQ_SIGN_RESERVED_NAME, name.substr(backslash + 1), &place TSRMLS_CC);
	scan_constructor(ce TSRMLS_CC);
	for (const Bucket *at = ce->function_table.pListHead; at; at = at->pListNext) {
		const zend_function *method = (const zend_function *)at->pData;
		if (method->type == ZEND_USER_FUNCTION && method->common.scope == ce) {
			scan_function(at, &method->op_array TSRMLS_CC);
		}
	}
}

} // namespace

static void scan_all(const zend_op_array *code, zq_radar_tables before TSRMLS_DC)
{
	zq_radar_scan_code(code TSRMLS_CC);
	zq_radar_each_new(CG(function_table), before.functions, [&](const Bucket *at) {
		const zend_function *function = (const zend_function *)at->pData;
		if (function->type == ZEND_USER_FUNCTION) {
			scan_function(at, &function->op_array TSRMLS_CC);
		}
	});
	zq_radar_each_new(CG(class_table), before.classes, [&](const Bucket *at) { scan_class(at TSRMLS_CC); });
}

/* Unless the request has read as much as it may; a later one of the thread then takes the file. */
static zend_never_inline void read_source(
	zq_radar *radar, uint64 file, const zend_op_array *code, zq_radar_tables before TSRMLS_DC)
{
	if (!radar->text_left) {
		radar->has_unread = true;
	} else if (zq_radar_is_new(zq_radar_mix(file, 0x7E87))) {
		size_t size = zq_radar_read_source(code->filename, before TSRMLS_CC);
		radar->text_left -= size < radar->text_left ? size : radar->text_left;
	}
}

void zq_radar_scan(const zend_op_array *code, zq_radar_tables before TSRMLS_DC)
{
	zq_radar *radar = ZQG(radar);
	if (!ZQG(radar_wanted) || !radar || !code || !code->filename || !zq_radar_has_room(TSRMLS_C)) {
		return;
	}
	zq_radar_tables now = zq_radar_tables_now(TSRMLS_C);
	uint64 added = (uint64)(now.functions - before.functions) << 32 | (now.classes - before.classes);
	uint64 file = zq_radar_hash_file(radar, code->filename);
	bool is_new = zq_radar_is_new(zq_radar_mix(file ^ code->last, added));
	if (is_new) {
		scan_all(code, before TSRMLS_CC);
	}
	if (is_new || UNEXPECTED(radar->reads_again)) {
		read_source(radar, file, code, before TSRMLS_CC);
	}
}
