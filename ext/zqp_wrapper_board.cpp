/* Texts of watched calls for the board, from what the call has before it is made. */
#include "zqp_wrapper_board.h"

#include "zqp_board_text.h"

static const long CURLOPT_URL_NUMBER = 10002;

static inline zq_board_call *add_row(zend_zqprof_globals *g, zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	return call->shown = zq_board_add(g->board, as->kind, call->execute_data, &call->shown_within TSRMLS_CC);
}

static inline void put_text(zq_board_call *shown, const char *text, size_t len)
{
	size_t room = sizeof(shown->text);
	shown->is_cut = len > room;
	shown->length = (uint8_t)(len < room ? len : room);
	memcpy(shown->text, text, shown->length);
}

static void put_url(zq_board_call *shown, const char *url)
{
	bool is_cut = false;
	shown->length =
		(uint8_t)zq_board_url(shown->text, sizeof(shown->text), url, strnlen(url, ZQ_BOARD_MOST_READ), &is_cut);
	shown->is_cut = is_cut;
}

void zq_show_statement(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	const zq_sql_api *api = as->api;
	const char *text = NULL;
	size_t len = 0;
	if (EXPECTED(api->argument >= 0)) {
		void **top = call->execute_data->function_state.arguments;
		int count = top ? (int)(zend_uintptr_t)*top : 0;
		const zval *value = api->argument < count ? (const zval *)top[api->argument - count] : NULL;
		if (EXPECTED(value && Z_TYPE_P(value) == IS_STRING)) {
			text = Z_STRVAL_P(value);
			len = (size_t)Z_STRLEN_P(value);
		}
	} else if ((text = api->statement(call, NULL TSRMLS_CC)) != NULL) {
		len = strnlen(text, ZQ_BOARD_MOST_READ);
	}
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	const char *vendor = api->vendor ? api->vendor : g->pdo_db;
	zq_board_call *shown = add_row(g, call, as TSRMLS_CC);
	bool is_cut = false;
	size_t written = zq_board_statement(shown->text, text, len, *vendor == 'P' || *vendor == 'O', &is_cut);
	shown->is_cut = is_cut;
	shown->length = (uint8_t)written;
	if (UNEXPECTED(written <= 1)) { /* it begins with a comment, or there is none */
		put_text(shown, call->func, (size_t)call->func_length);
	}
}

void zq_show_function(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	put_text(add_row(zq_globals(TSRMLS_C), call, as TSRMLS_CC), call->func, (size_t)call->func_length);
}

void zq_show_client(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	if (!ZQG(webservice_should_ignored)) {
		zq_show_function(call, as TSRMLS_CC);
	}
}

void zq_show_curl(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	const zval *handle = get_argument_zval(call->execute_data, 0);
	bool is_known =
		handle && Z_TYPE_P(handle) == IS_RESOURCE && g->curl_url_len && Z_LVAL_P(handle) == g->curl_url_handle;
	if (!is_known) {
		zq_show_client(call, as TSRMLS_CC);
	} else if (!g->webservice_should_ignored) {
		put_text(add_row(zq_globals(TSRMLS_C), call, as TSRMLS_CC), g->curl_url, g->curl_url_len);
	}
}

void zq_show_stream(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	const char *url = get_argument_char(call->execute_data, 0);
	if (!ZQG(webservice_should_ignored) && zq_is_http_url(url)) {
		put_url(add_row(zq_globals(TSRMLS_C), call, as TSRMLS_CC), url);
	}
}

void zq_show_soap(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC)
{
	const char *url = get_argument_char(call->execute_data, 1);
	if (!ZQG(webservice_should_ignored) && url) {
		put_url(add_row(zq_globals(TSRMLS_C), call, as TSRMLS_CC), url);
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
		bool is_cut;
		g->curl_url_handle = Z_LVAL_P(handle);
		g->curl_url_len =
			zq_board_url(g->curl_url, sizeof(g->curl_url), url, strnlen(url, ZQ_BOARD_MOST_READ), &is_cut);
	}
}
