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
constexpr unsigned MOST_SEEN = 64;     /* a power of two */

/* A call that this request has made already. */
struct seen_call {
	const zend_op *opline;
	const zend_function *callee;
	uint line;
};

} // namespace

/* Of one thread; malloc's. */
struct zq_radar {
	size_t len;
	uint64 file;         /* hash of the file that the items at the end belong to; 0: none */
	uint64 called_us;    /* when it was last noted which functions were called */
	bool has_marked;     /* this thread's functions bear their flag */
	const char *at_file; /* the file that was hashed last, and its hash */
	uint64 at_hash;
	seen_call seen[MOST_SEEN];
	char items[ZQ_RADAR_MOST_BYTES];
};

/* ---- what was noted ---- */

uint64 zq_radar_mix(uint64 a, uint64 b)
{
	uint64 mixed = (a ^ (b + 0x9E3779B97F4A7C15u + (a << 6) + (a >> 2))) * 0xBF58476D1CE4E5B9u;
	return mixed ^ mixed >> 29;
}

uint64 zq_radar_hash(std::string_view name)
{
	const char *text = name.data();
	size_t len = name.size();
	uint64 hash = len, word;
	for (; len >= sizeof(word); text += sizeof(word), len -= sizeof(word)) {
		memcpy(&word, text, sizeof(word));
		hash = zq_radar_mix(hash, word);
	}
	word = 0;
	memcpy(&word, text, len);
	return zq_radar_mix(hash, word);
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

uint64 zq_radar_hash_file(const char *file TSRMLS_DC)
{
	zq_radar *radar = ZQG(radar);
	if (radar->at_file != file) {
		radar->at_file = file;
		radar->at_hash = zq_radar_hash(file);
	}
	return radar->at_hash;
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

void zq_radar_note(
	zq_radar_sign sign, std::string_view name, uint64 name_id, const zq_radar_place *at, int evidence TSRMLS_DC)
{
	zq_radar *radar = ZQG(radar);
	uint64 file = zq_radar_hash_file(at->file TSRMLS_CC);
	uint64 what = (uint64)at->line << 32 | (uint64)sign << 8 | (uint64)evidence;
	what = zq_radar_mix(zq_radar_mix(file, what), name_id);
	if (!zq_radar_is_new(what) || !append_file(radar, file, at->file)) {
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

/* Known by the lines that it takes, whatever a trait's user calls it. */
void zq_radar_note_function(const zend_op_array *code, int was_called TSRMLS_DC)
{
	zq_radar *radar = ZQG(radar);
	uint64 file = zq_radar_hash_file(code->filename TSRMLS_CC);
	uint64 lines = (uint64)code->line_start << 32 | code->line_end;
	if (!zq_radar_is_new(zq_radar_mix(zq_radar_mix(file, lines), 0xF0 + (uint64)was_called)) ||
		!append_file(radar, file, code->filename)) {
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

/* The calls that a request has made are passed over by the place of their opcode, which is the script's while it runs.
 */
static bool is_seen(zq_radar *radar, const zend_execute_data *at, const zend_function *callee)
{
	seen_call *seen = &radar->seen[(uintptr_t)at->opline / sizeof(zend_op) % MOST_SEEN];
	if (seen->opline == at->opline && seen->callee == callee && seen->line == at->opline->lineno) {
		return true;
	}
	*seen = {at->opline, callee, at->opline->lineno};
	return false;
}

void zq_radar_called(zend_execute_data *frame TSRMLS_DC)
{
	const zend_function *callee = frame->function_state.function;
	const zend_execute_data *at = frame;
	while (at && !at->op_array) {
		at = at->prev_execute_data;
	}
	if (!ZQG(radar_wanted) || !ZQG(radar) || !at || !at->opline || is_seen(ZQG(radar), at, callee)) {
		return;
	}
	if (at->op_array->filename) {
		zq_radar_place place = {at->op_array->filename, at->opline->lineno, at->op_array};
		const char *name = callee->common.function_name;
		zq_radar_note(ZQ_SIGN_CALL, name, (uintptr_t)name, &place, ZQ_RADAR_RAN TSRMLS_CC);
	}
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
	forget_old(g->rinit_tick);
	memset(g->radar->seen, 0, sizeof(g->radar->seen));
	g->radar->at_file = NULL;
	if (!g->radar->has_marked) {
		mark_functions(TSRMLS_C);
		g->radar->has_marked = true;
	}
	if (zq_radar_is_new(zq_radar_hash("settings"))) {
		note_settings(TSRMLS_C);
	}
}

/* A function that has run has its cache of names. */
static inline void note_if_called(const zend_function *function TSRMLS_DC)
{
	if (function->type == ZEND_USER_FUNCTION && function->op_array.run_time_cache && function->op_array.filename) {
		zq_radar_note_function(&function->op_array, 1 TSRMLS_CC);
	}
}

void zq_radar_end(TSRMLS_D)
{
	if (!ZQG(radar_wanted) || !ZQG(radar)) {
		return;
	}
	/* the script's own are the last of each table */
	for (const Bucket *at = EG(function_table)->pListTail; at; at = at->pListLast) {
		const zend_function *function = (const zend_function *)at->pData;
		if (function->type != ZEND_USER_FUNCTION) {
			break;
		}
		note_if_called(function TSRMLS_CC);
	}
	for (const Bucket *at = EG(class_table)->pListTail; at; at = at->pListLast) {
		const zend_class_entry *ce = *(zend_class_entry **)at->pData;
		if (ce->type != ZEND_USER_CLASS) {
			break;
		}
		for (const Bucket *method = ce->function_table.pListHead; method; method = method->pListNext) {
			note_if_called((const zend_function *)method->pData TSRMLS_CC);
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
