/* Texts of watched calls for the board, from what the call has before it is made. */
#include "zqp_wrapper_board.h"

#include "zqp_board_text.h"

static const long CURLOPT_URL_NUMBER = 10002;

static inline zq_board_call *add_row(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	zq_board_answer_if_asked(board, call->execute_data TSRMLS_CC);
	return call->shown = zq_board_add(board, as->kind, &call->shown_within);
}

static inline void set_text(zq_board_call *shown, zq_board_shown text)
{
	shown->length = (uint8_t)text.len;
	shown->is_cut = text.is_cut;
}

static inline void put_text(zq_board_call *shown, const char *text, size_t len)
{
	size_t room = sizeof(shown->text);
	shown->is_cut = len > room;
	shown->length = (uint8_t)(len < room ? len : room);
	memcpy(shown->text, text, shown->length);
}

static inline void put_name(zq_board_call *shown, const zq_stack_data *call)
{
	put_text(shown, call->func, (size_t)call->func_length);
}

static void put_url(zq_board_call *shown, const char *url)
{
	set_text(shown, zq_board_url(shown->text, sizeof(shown->text), url, strnlen(url, ZQ_BOARD_MOST_READ)));
}

/* ---- statements ---- */

struct statement_text {
	const char *text; /* borrowed */
	size_t len;       /* 0: there is none */
};

static inline statement_text text_of(const zval *value)
{
	return EXPECTED(value && Z_TYPE_P(value) == IS_STRING)
		? statement_text{Z_STRVAL_P(value), (size_t)Z_STRLEN_P(value)}
		: statement_text{"", 0};
}

static inline statement_text argument_text(const zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	const int argument = as->api->argument;
	void **top = call->execute_data->function_state.arguments;
	int count = top ? (int)(zend_uintptr_t)*top : 0;
	int index = argument < 0 ? argument : argument - count;
	return text_of(index < 0 && index >= -count ? (const zval *)top[index] : NULL);
}

static inline statement_text property_text(const zq_stack_data *call, const zq_shown_as *TSRMLS_DC)
{
	return text_of(zq_only_property(call->object TSRMLS_CC));
}

static inline statement_text prepared_text(const zq_stack_data *, const zq_shown_as *TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	return g->prepared_sql ? statement_text{g->prepared_sql, g->prepared_len} : statement_text{"", 0};
}

static void show_slowly(
	zq_stack_data *call, const zq_shown_as *as, statement_text found, zq_board_call *shown, size_t most TSRMLS_DC)
{
	while (found.len && (unsigned char)*found.text <= ' ') {
		found.text++;
		found.len--;
	}
	const char *vendor = as->api->vendor ? as->api->vendor : ZQG(pdo_db);
	vendor = vendor ? vendor : "";
	set_text(shown, zq_board_statement(shown->text, most, found.text, found.len, vendor));
	if (shown->length <= 1) { /* it begins with a comment, or there is none */
		put_name(shown, call);
	}
}

/* A statement that is not read in a few steps, or none. */
static zend_never_inline void show_any(zq_stack_data *call, const zq_shown_as *as, statement_text found TSRMLS_DC)
{
	show_slowly(call, as, found, call->shown, ZQ_BOARD_QUICK TSRMLS_CC);
}

static zend_never_inline void answer_and_show(
	zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	zq_board_answer(board, call->execute_data TSRMLS_CC);
	as->show(call, as, board TSRMLS_CC);
}

/* Calls nothing in the common case: that of a text which begins with a word. */
template <statement_text (*find)(const zq_stack_data *, const zq_shown_as *TSRMLS_DC)>
static inline void show_statement(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	if (zq_board_is_asked(board)) {
		answer_and_show(call, as, board TSRMLS_CC);
		return;
	}
	const statement_text found = find(call, as TSRMLS_CC);
	zq_board_call *row = zq_board_add(board, ZQ_BOARD_SQL, &call->shown_within);
	call->shown = row;
	zq_board_shown shown;
	if (EXPECTED(found.text[0] & 0x40) &&
		EXPECTED(zq_board_quick_statement(row->text, found.text, found.len, &shown))) {
		set_text(row, shown);
	} else {
		show_any(call, as, found TSRMLS_CC);
	}
}

/* The text of a call that took long is worth its price. */
template <statement_text (*find)(const zq_stack_data *, const zq_shown_as *TSRMLS_DC)>
static void show_whole(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	if (call->shown->is_cut && call->shown->length == ZQ_BOARD_QUICK) {
		show_slowly(call, as, find(call, as TSRMLS_CC), call->shown, ZQ_BOARD_TEXT_SIZE TSRMLS_CC);
	}
}

void zq_show_argument(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	show_statement<argument_text>(call, as, board TSRMLS_CC);
}

void zq_show_property(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	show_statement<property_text>(call, as, board TSRMLS_CC);
}

void zq_show_prepared(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	show_statement<prepared_text>(call, as, board TSRMLS_CC);
}

void zq_show_whole_statement(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	as->show == zq_show_argument       ? show_whole<argument_text>(call, as TSRMLS_CC)
		: as->show == zq_show_property ? show_whole<property_text>(call, as TSRMLS_CC)
									   : show_whole<prepared_text>(call, as TSRMLS_CC);
}

/* ---- others ---- */

void zq_show_function(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	put_name(add_row(call, as, board TSRMLS_CC), call);
}

void zq_show_client(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	if (!ZQG(webservice_should_ignored)) {
		zq_show_function(call, as, board TSRMLS_CC);
	}
}

void zq_show_curl(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	const zval *handle = get_argument_zval(call->execute_data, 0);
	bool is_known =
		handle && Z_TYPE_P(handle) == IS_RESOURCE && g->curl_url_len && Z_LVAL_P(handle) == g->curl_url_handle;
	if (!is_known) {
		zq_show_client(call, as, board TSRMLS_CC);
	} else if (!g->webservice_should_ignored) {
		put_text(add_row(call, as, board TSRMLS_CC), g->curl_url, g->curl_url_len);
	}
}

void zq_show_stream(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	const char *url = get_argument_char(call->execute_data, 0);
	if (!ZQG(webservice_should_ignored) && zq_is_http_url(url)) {
		put_url(add_row(call, as, board TSRMLS_CC), url);
	}
}

void zq_show_soap(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC)
{
	const char *url = get_argument_char(call->execute_data, 1);
	if (!ZQG(webservice_should_ignored) && url) {
		put_url(add_row(call, as, board TSRMLS_CC), url);
	}
}

void zq_keep_url(zq_stack_data *call TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	bool is_new =
		get_arguments_count(call->execute_data) < 3; /* curl_init([url]), curl_setopt(handle, option, value) */
	const zval *handle = is_new ? zq_returned_value(call) : get_argument_zval(call->execute_data, 0);
	const char *url = get_argument_char(call->execute_data, is_new ? 0 : 2);
	if (handle && Z_TYPE_P(handle) == IS_RESOURCE && url &&
		(is_new || get_argument_long(call->execute_data, 1) == CURLOPT_URL_NUMBER)) {
		g->curl_url_handle = Z_LVAL_P(handle);
		g->curl_url_len = zq_board_url(g->curl_url, sizeof(g->curl_url), url, strnlen(url, ZQ_BOARD_MOST_READ)).len;
	}
}
