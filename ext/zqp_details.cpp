/* Keeping of details. A statement costs a few comparisons while one call of the script goes on running statements, and
 * a probe of a small table when it is another call's turn. */
#include "zqp_details.h"

#include <sys/resource.h>

static const unsigned FIRST_SLOTS = 32; /* a power of two, as all that follow */
static const size_t MOST_TEXT = 16384, MOST_TEXTS = 128 << 10;

void zq_thread_times(uint64 *user_us, uint64 *system_us)
{
	struct rusage used;
	*user_us = *system_us = 0;
	if (getrusage(RUSAGE_THREAD, &used) == 0) {
		*user_us = (uint64)used.ru_utime.tv_sec * 1000000 + (uint64)used.ru_utime.tv_usec;
		*system_us = (uint64)used.ru_stime.tv_sec * 1000000 + (uint64)used.ru_stime.tv_usec;
	}
}

void zq_details_begin(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_details_end(TSRMLS_C);
	if (g->details_wanted) {
		g->details = (zq_details *)ecalloc(1, sizeof(zq_details));
		g->details->objects = &EG(objects_store);
		zq_thread_times(&g->details->user_us, &g->details->system_us);
	}
}

void zq_details_end(TSRMLS_D)
{
	zq_details *details = ZQG(details);
	ZQG(details) = NULL;
	if (!details) {
		return;
	}
	for (zq_whole_text *text = details->texts; text;) {
		zq_whole_text *next = text->next;
		efree(text);
		text = next;
	}
	if (details->places) {
		efree(details->places);
		efree(details->slots);
	}
	efree(details);
}

/* ---- places ---- */

/* The slot that has the place, or the free one where it belongs. */
static uint16_t *slot_of(const zq_details *details, const zq_place *place)
{
	uint64 hash = ((uint64)(uintptr_t)place->file ^ (uint64)(uintptr_t)place->source << 20 ^ (uint64)place->line << 44 ^
					  (uint64)(uintptr_t)place->caller << 12 ^ (uint64)place->caller_line << 32) *
		0x9E3779B97F4A7C15u;
	for (unsigned at = (unsigned)(hash >> 40);; at++) {
		uint16_t *slot = &details->slots[at & (details->slot_count - 1)];
		const zq_place *other = &details->places[*slot];
		if (*slot == ZQ_NO_PLACE ||
			(other->file == place->file && other->line == place->line && other->source == place->source &&
				other->caller == place->caller && other->caller_line == place->caller_line)) {
			return slot;
		}
	}
}

/* Twice as many slots, of which places take half at most. */
static void grow_slots(zq_details *details)
{
	details->slot_count = details->slot_count ? details->slot_count * 2 : FIRST_SLOTS;
	details->slots = (uint16_t *)safe_erealloc(details->slots, details->slot_count, sizeof(uint16_t), 0);
	details->places = (zq_place *)safe_erealloc(details->places, details->slot_count / 2, sizeof(zq_place), 0);
	memset(details->slots, 0xFF, details->slot_count * sizeof(uint16_t));
	for (unsigned i = 0; i < details->place_count; i++) {
		*slot_of(details, &details->places[i]) = (uint16_t)i;
	}
}

unsigned zq_details_add_place(zq_details *details, const zq_place *place, const char *(*vendor_of)(const void *))
{
	if (details->place_count * 2 >= details->slot_count) {
		grow_slots(details);
	}
	uint16_t *slot = slot_of(details, place);
	if (*slot == ZQ_NO_PLACE) {
		if (details->place_count == ZQ_MOST_PLACES) {
			return ZQ_NO_PLACE;
		}
		*slot = (uint16_t)details->place_count;
		details->places[details->place_count] = *place;
		details->places[details->place_count++].vendor =
			vendor_of ? vendor_of(place->source) : (const char *)place->source;
	}
	return *slot;
}

void zq_details_locate(zq_place *place, zend_execute_data *frame TSRMLS_DC)
{
	while (frame && !frame->op_array) {
		frame = frame->prev_execute_data;
	}
	place->line = (uint)zq_calling_place(frame, &place->file TSRMLS_CC);
	/* what is included has nobody who calls it */
	const zend_execute_data *caller = frame && frame->op_array->function_name ? zq_calling_frame(frame) : NULL;
	place->caller = caller ? caller->op_array->filename : NULL;
	place->caller_line = caller ? caller->opline->lineno : 0;
}

unsigned zq_details_place(zq_details *details, zend_execute_data *frame, const void *kind, const void *source,
	const char *(*vendor_of)(const void *)TSRMLS_DC)
{
	zq_place place = {};
	place.source = source;
	zq_details_locate(&place, frame TSRMLS_CC);
	unsigned number = zq_details_add_place(details, &place, vendor_of);
	bool lasts = frame->op_array && frame->op_array->function_name && frame->opline->opcode != ZEND_HANDLE_EXCEPTION;
	details->last = {frame->opline, lasts ? kind : NULL, source, place.caller, place.caller_line, number};
	return number;
}

/* ---- texts ---- */

void zq_details_keep_text(zq_details *details, unsigned number, int field, const char *text, size_t len)
{
	len = len < MOST_TEXT ? len : MOST_TEXT;
	if (details->text_bytes + len > MOST_TEXTS) {
		return;
	}
	zq_whole_text *kept = (zq_whole_text *)emalloc(sizeof(zq_whole_text) + len);
	kept->next = details->texts;
	kept->number = number;
	kept->field = field;
	kept->len = len;
	memcpy(kept->text, text, len);
	details->texts = kept;
	details->text_bytes += len;
}
