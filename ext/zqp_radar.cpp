/* Noting for the radar: what was noted already, what is to be sent, and the calls that are
 * seen as they happen. What a compiler sees is in zqp_radar_scan.cpp. */
#include "zqp_radar.h"

#include <atomic>

#include "zqp_lock.h"

extern "C" PHPAPI char *php_ini_opened_path; /* no header has it, but phpinfo() shows it */

namespace {

/* What the process has noted in this hour, by 64-bit numbers, without a lock: 512 KiB, of which pages that are not used
 * take no memory. A forked child goes on with what its parent knew. */
constexpr size_t MOST_NOTED = 1 << 16, MOST_PROBES = 16;
std::atomic<uint64> noted[MOST_NOTED];
std::atomic<uint64> noted_since; /* us of the clock; 0: never */
constexpr uint64 NOTED_FOR_US = 3600ull * 1000000;

constexpr size_t MOST_NAME = 255, MOST_FILE = 4096;
constexpr size_t KEPT_FREE = 32 << 10; /* what one file may need */
constexpr size_t MOST_TEXT = 1 << 20;  /* of files, read in one request: some ms */

} // namespace

/* ---- what was noted ---- */

/* By words of 8 bytes, of which the last overlaps the one before. */
uint64 zq_radar_hash(std::string_view text)
{
	uint64 hash = text.size(), word = 0;
	const char *end = text.data() + text.size() - sizeof(word);
	if (text.size() < sizeof(word)) {
		memcpy(&word, text.data(), text.size());
		return zq_radar_mix(hash, word);
	}
	for (const char *at = text.data(); at < end; at += sizeof(word)) {
		memcpy(&word, at, sizeof(word));
		hash = (hash ^ word) * 0xBF58476D1CE4E5B9u;
		hash ^= hash >> 32;
	}
	memcpy(&word, end, sizeof(word));
	return zq_radar_mix(hash, word);
}

/* Where most of what was noted is found: the first place to look at. */
static inline bool is_noted(uint64 what)
{
	return EXPECTED(noted[what % MOST_NOTED].load(std::memory_order_relaxed) == what);
}

bool zq_radar_is_new(uint64 what)
{
	what += what == 0;
	for (size_t probe = 0; probe < MOST_PROBES; probe++) {
		std::atomic<uint64> &slot = noted[(what + probe) % MOST_NOTED];
		uint64 found = slot.load(std::memory_order_relaxed);
		if (found == 0 && slot.compare_exchange_strong(found, what, std::memory_order_relaxed)) {
			return true;
		}
		if (found == what) {
			return false;
		}
	}
	return false;
}

/* After an hour everything is new again. */
static void forget_old(uint64 now)
{
	uint64 since = noted_since.load(std::memory_order_relaxed);
	if (since && now - since < NOTED_FOR_US) {
		return;
	}
	if (noted_since.compare_exchange_strong(since, now + !now, std::memory_order_relaxed)) {
		for (auto &slot : noted) {
			if (slot.load(std::memory_order_relaxed)) { /* reading takes no page */
				slot.store(0, std::memory_order_relaxed);
			}
		}
	}
}

uint64 zq_radar_hash_another(zq_radar_file *kept, const char *file)
{
	*kept = {file, zq_radar_hash(file)};
	return kept->hash;
}

/* ---- what is to be sent ---- */

const char *zq_radar_items(size_t *len TSRMLS_DC)
{
	const zq_radar *radar = ZQG(radar);
	*len = radar ? radar->len : 0;
	return radar ? radar->items : NULL;
}

void zq_radar_sent(TSRMLS_D)
{
	ZQG(radar)->len = 0;
	ZQG(radar)->file = 0;
}

bool zq_radar_has_room(TSRMLS_D)
{
	return ZQG(radar)->len + KEPT_FREE < ZQ_RADAR_MOST_BYTES;
}

/* An item of up to three pieces; false when it does not fit. */
static bool append(zq_radar *radar, int type, const void *head, size_t head_len, const char *a, size_t a_len,
	const char *b, size_t b_len)
{
	size_t body = head_len + a_len + b_len;
	if (radar->len + 4 + body > ZQ_RADAR_MOST_BYTES) {
		return false;
	}
	char *to = radar->items + radar->len;
	const char header[4] = {(char)type, (char)(body >> 16), (char)(body >> 8), (char)body};
	memcpy(to, header, sizeof(header));
	memcpy((char *)mempcpy(mempcpy(to + 4, head, head_len), a, a_len), b, b_len);
	radar->len += 4 + body; /* last: a time limit may strike before it */
	return true;
}

/* The items that follow belong to the file. */
static bool append_file(zq_radar *radar, uint64 hash, const char *file)
{
	if (radar->file == hash) {
		return true;
	}
	radar->file = hash;
	return append(radar, ZQ_RADAR_FILE, NULL, 0, file, strnlen(file, MOST_FILE), NULL, 0);
}

/* "class::function", cut; the length is 0 for code outside of functions. */
static size_t name_function(const zend_op_array *code, char (&name)[MOST_NAME + 1])
{
	if (!code || !code->function_name) {
		return 0;
	}
	int len = snprintf(name, sizeof(name), "%s%s%s", code->scope ? code->scope->name : "", code->scope ? "::" : "",
		code->function_name);
	return (size_t)len < MOST_NAME ? (size_t)len : MOST_NAME;
}

static inline uint64 id_of_site(uint64 file, zq_radar_sign sign, uint64 name_id, uint line, int evidence)
{
	return zq_radar_mix(file ^ name_id, (uint64)line << 32 | (uint64)sign << 8 | (uint64)evidence);
}

void zq_radar_note(
	zq_radar_sign sign, std::string_view name, uint64 name_id, const zq_radar_place *at, int evidence TSRMLS_DC)
{
	zq_radar *radar = ZQG(radar);
	uint64 file = zq_radar_hash_file(radar, at->file);
	if (!zq_radar_is_new(id_of_site(file, sign, name_id, at->line, evidence)) || !append_file(radar, file, at->file)) {
		return;
	}
	char function[MOST_NAME + 1], head[sizeof(uint32_t) + 3];
	uint32_t line = at->line;
	name = name.substr(0, MOST_NAME);
	memcpy(head, &line, sizeof(line));
	head[4] = (char)sign;
	head[5] = (char)evidence;
	head[6] = (char)name.size();
	append(radar, ZQ_RADAR_SITE, head, sizeof(head), name.data(), name.size(), function,
		name_function(at->code, function));
}

/* A function is known by the lines that it takes, whatever a trait's user calls it. */
static inline uint64 id_of_function(uint64 file, const zend_op_array *code, int was_called)
{
	uint64 lines = (uint64)code->line_start << 32 | code->line_end;
	return zq_radar_mix(file ^ (0xF0 + (uint64)was_called), lines);
}

void zq_radar_note_function(const zend_op_array *code, int was_called TSRMLS_DC)
{
	zq_radar *radar = ZQG(radar);
	uint64 file = zq_radar_hash_file(radar, code->filename);
	if (!zq_radar_is_new(id_of_function(file, code, was_called)) || !append_file(radar, file, code->filename)) {
		return;
	}
	char name[MOST_NAME + 1], head[sizeof(uint32_t) + 1];
	uint32_t line = code->line_start;
	memcpy(head, &line, sizeof(line));
	head[4] = (char)was_called;
	append(radar, ZQ_RADAR_FUNCTION, head, sizeof(head), name, name_function(code, name), NULL, 0);
}

/* ---- calls ---- */

/* This thread's functions that a rule names whatever their arguments. The table of another thread is another one. */
static void mark_functions(TSRMLS_D)
{
	for (const zq_radar_name &name : zq_radar_names) {
		zend_function *function;
		const std::string_view text = name.text;
		char key[64] = {}; /* a key of the engine's ends with NUL */
		if (zq_radar_rules[name.row].sign != ZQ_SIGN_CALL || text.size() >= sizeof(key)) {
			continue;
		}
		memcpy(key, text.data(), text.size());
		if (zend_hash_find(EG(function_table), key, (uint)text.size() + 1, (void **)&function) == SUCCESS &&
			function->type == ZEND_INTERNAL_FUNCTION) {
			function->common.fn_flags |= ZQ_ACC_ON_RADAR;
		}
	}
}

void zq_radar_called(zend_execute_data *frame TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_radar *radar = g->radar;
	const zend_function *callee = frame->function_state.function;
	while (frame && !frame->op_array) {
		frame = frame->prev_execute_data;
	}
	if (!g->radar_wanted || !frame || !frame->opline || !frame->op_array->filename) {
		return;
	}
	const uint line = frame->opline->lineno;
	const char *name = callee->common.function_name;
	radar->calls[((uintptr_t)frame->opline >> 4) % ZQ_RADAR_MOST_CALLS] = {
		frame->opline, callee, radar->request | line};
	uint64 file = zq_radar_hash_file(radar, frame->op_array->filename);
	if (!is_noted(id_of_site(file, ZQ_SIGN_CALL, (uintptr_t)name, line, ZQ_RADAR_RAN))) {
		zq_radar_place place = {frame->op_array->filename, line, frame->op_array};
		zq_radar_note(ZQ_SIGN_CALL, name, (uintptr_t)name, &place, ZQ_RADAR_RAN TSRMLS_CC);
	}
}

bool zq_radar_has_raised(const char *file, uint line, const char *format TSRMLS_DC)
{
	uint64 what = zq_radar_mix(zq_radar_hash_file(ZQG(radar), file) ^ (uintptr_t)format, line);
	return is_noted(what) || !zq_radar_is_new(what);
}

/* ---- settings ---- */

/* A text that switches nothing on. */
static bool is_off(const char *value)
{
	for (const char *off : {"", "0", "-1", "off", "no", "none", "false"}) {
		if (strcasecmp(value, off) == 0) {
			return true;
		}
	}
	return false;
}

constexpr uint64 SETTINGS = 0x5E771465u; /* stands for them among what was noted */

/* Settings of php.ini and the files beside it. Once an hour. */
static void note_settings(TSRMLS_D)
{
	const zq_radar_place place = {php_ini_opened_path ? php_ini_opened_path : "php.ini", 0, NULL};
	for (const zq_radar_name &name : zq_radar_names) {
		char key[64] = {};
		if (zq_radar_rules[name.row].sign != ZQ_SIGN_SETTING || name.text.size() >= sizeof(key)) {
			continue;
		}
		memcpy(key, name.text.data(), name.text.size());
		const zval *set = cfg_get_entry(key, (uint)name.text.size() + 1);
		if (set && Z_TYPE_P(set) == IS_STRING && !is_off(Z_STRVAL_P(set))) {
			zq_radar_note(ZQ_SIGN_SETTING, name.text, (uintptr_t)name.text.data(), &place, ZQ_RADAR_RAN TSRMLS_CC);
		}
	}
}

/* ---- requests ---- */

/* Held timers: a time limit must not leave the C library's heap in the middle of its work. */
static zq_radar *allocate()
{
	sigset_t timers;
	zq_hold_timers(&timers);
	zq_radar *radar = (zq_radar *)calloc(1, sizeof(zq_radar));
	zq_allow_timers(&timers);
	return radar;
}

void zq_radar_begin(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!g->radar_wanted || (!g->radar && !(g->radar = allocate()))) {
		return;
	}
	zq_radar *radar = g->radar;
	forget_old(g->rinit_tick);
	radar->request += uint64{1} << 32;
	memset(radar->files, 0, sizeof(radar->files));
	radar->reads_again = radar->has_unread;
	radar->has_unread = false;
	radar->text_left = MOST_TEXT;
	if (!radar->has_marked) {
		mark_functions(TSRMLS_C);
		radar->has_marked = true;
	}
	if (!is_noted(SETTINGS) && zq_radar_is_new(SETTINGS)) {
		note_settings(TSRMLS_C);
	}
}

/* A function that has run has its cache of names. */
static inline void note_if_called(zq_radar *radar, const zend_function *function TSRMLS_DC)
{
	const zend_op_array *code = &function->op_array;
	if (function->type == ZEND_USER_FUNCTION && code->run_time_cache && code->filename &&
		!is_noted(id_of_function(zq_radar_hash_file(radar, code->filename), code, 1))) {
		zq_radar_note_function(code, 1 TSRMLS_CC);
	}
}

void zq_radar_end(TSRMLS_D)
{
	zq_radar *radar = ZQG(radar);
	if (!ZQG(radar_wanted) || !radar) {
		return;
	}
	/* the script's own are the last of each table */
	for (const Bucket *at = EG(function_table)->pListTail; at; at = at->pListLast) {
		const zend_function *function = (const zend_function *)at->pData;
		if (function->type != ZEND_USER_FUNCTION) {
			break;
		}
		note_if_called(radar, function TSRMLS_CC);
	}
	for (const Bucket *at = EG(class_table)->pListTail; at; at = at->pListLast) {
		const zend_class_entry *ce = *(zend_class_entry **)at->pData;
		if (ce->type != ZEND_USER_CLASS) {
			break;
		}
		for (const Bucket *method = ce->function_table.pListHead; method; method = method->pListNext) {
			note_if_called(radar, (const zend_function *)method->pData TSRMLS_CC);
		}
	}
}

void zq_radar_end_action(TSRMLS_D)
{
	const uint64 apart_us = 10 * 1000000;
	zq_radar *radar = ZQG(radar);
	uint64 now = zq_clock_us(&ZQG(clock));
	if (radar && now - radar->called_us > apart_us) {
		radar->called_us = now;
		zq_radar_end(TSRMLS_C);
	}
}

void zq_radar_free(zend_zqprof_globals *g)
{
	free(g->radar);
	g->radar = NULL;
}
