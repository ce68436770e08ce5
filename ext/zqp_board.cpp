/* What a thread writes into its slot of the board. The texts are cut to fit; nothing here takes memory or fails. */
#include "zqp_board.h"

#include <sys/time.h>

#include "zqp_open_calls.h"

template <size_t size>
static uint16_t put_text(char (&field)[size], const char *text, size_t len)
{
	len = len < size ? len : size;
	memcpy(field, text, len);
	return (uint16_t)len;
}

template <size_t size>
static uint16_t put_text(char (&field)[size], const char *text)
{
	return put_text(field, text ? text : "", text ? strlen(text) : 0);
}

void zq_board_open(const char *path TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	g->board = NULL;
	zq_board_slot *slot = g->details_wanted ? zq_board_take_slot(TSRMLS_C) : NULL;
	if (!slot) {
		return;
	}
	struct timeval now;
	gettimeofday(&now, NULL);
	int64_t since_us = (int64_t)(cycle_timer() - g->rinit_tick);
	zq_board_write(slot);
	slot->begin_us = g->rinit_tick;
	slot->begin_ms = (int64_t)now.tv_sec * 1000 + now.tv_usec / 1000 - since_us / 1000;
	slot->actions++;
	slot->current = slot->calls = 0;
	memset(slot->counts, 0, sizeof(slot->counts));
	slot->application_length = put_text(slot->application, g->app_name);
	slot->method_length = put_text(slot->method, g_cli ? NULL : SG(request_info).request_method);
	slot->path_length = put_text(slot->path, path, path ? strcspn(path, "?") : 0);
	slot->action_length = put_text(slot->action, g->action_name);
	slot->function_length = slot->signal = 0;
	slot->is_open = 1;
	zq_board_written(slot);
	g->board = slot;
}

void zq_board_close(zend_zqprof_globals *g)
{
	zq_board_slot *slot = g->board;
	g->board = NULL;
	if (slot) {
		zq_board_write(slot);
		slot->is_open = slot->current = 0;
		slot->function_length = 0;
		zq_board_written(slot);
	}
}

void zq_board_rename(zq_board_slot *slot, const char *name)
{
	zq_board_write(slot);
	slot->action_length = put_text(slot->action, name);
	zq_board_written(slot);
}

/* ---- PHP's stack, for a reader that asks ---- */

struct stack_text {
	char *at, *end;
};

static void add(stack_text *out, const char *text)
{
	size_t len = strlen(text), room = (size_t)(out->end - out->at);
	len = len < room ? len : room;
	memcpy(out->at, text, len);
	out->at += len;
}

/* "Class::function file:line" and a line feed. */
static void add_frame(stack_text *out, zend_execute_data *frame TSRMLS_DC)
{
	zq_callee callee = zq_callee_of(frame TSRMLS_CC);
	char line[16];
	snprintf(line, sizeof(line), ":%u\n", frame->opline ? frame->opline->lineno : 0);
	if (callee.scope) {
		add(out, callee.scope->name);
		add(out, "::");
	}
	add(out, callee.func ? callee.func : "(main)");
	add(out, " ");
	add(out, frame->op_array && frame->op_array->filename ? frame->op_array->filename : "");
	add(out, line);
}

void zq_board_answer(zq_board_slot *slot, zend_execute_data *frame TSRMLS_DC)
{
	const int most_frames = 100;
	uint32_t asked = slot->asked;
	stack_text out = {slot->stack, slot->stack + sizeof(slot->stack)};
	zq_board_write(slot);
	for (int i = 0; frame && i < most_frames && out.at < out.end; frame = frame->prev_execute_data, i++) {
		if (frame->op_array) { /* else PHP's own function calls back, and the next one tells of it */
			add_frame(&out, frame TSRMLS_CC);
		}
	}
	slot->stack_length = (uint16_t)(out.at - slot->stack);
	slot->answered = asked;
	zq_board_written(slot);
}

void zq_board_outermost(zend_zqprof_globals *g, zend_execute_data *frame, const char *cls, size_t cls_len,
	const char *func, size_t func_len TSRMLS_DC)
{
	zq_board_slot *slot = g->board;
	if (func && zq_board_is_asked(slot)) {
		zq_board_answer(slot, frame TSRMLS_CC);
	}
	zq_board_write(slot);
	size_t len = 0;
	if (func && cls) {
		len = put_text(slot->function, cls, cls_len < 64 ? cls_len : 64);
		memcpy(slot->function + len, "::", 2);
		len += 2;
	}
	if (func) {
		size_t room = sizeof(slot->function) - len;
		func_len = func_len < room ? func_len : room;
		memcpy(slot->function + len, func, func_len);
		len += func_len;
	}
	slot->function_length = (uint16_t)len;
	zq_board_written(slot);
}
