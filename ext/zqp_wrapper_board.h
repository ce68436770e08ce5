/* How watched calls are shown on the board: what each recorder's calls are, and where their texts come from. */
#ifndef ZQP_WRAPPER_BOARD_H
#define ZQP_WRAPPER_BOARD_H

#include "zqp_board.h"
#include "zqp_wrapper_database.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_headers.h"
#include "zqp_wrapper_nosql.h"

/* How the calls of one recorder are shown. */
struct zq_shown_as {
	/* Puts the call, which is about to be made, on the board: call->shown, unless there is nothing to show. Only while
	 * `board` is set; zq_board_begins() has to follow. Null: never shown. */
	void (*show)(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC);
	zq_board_kind kind;
	const zq_sql_api *api; /* of a statement */
	bool sets_url;         /* of a curl handle: zq_keep_url() is to follow the call */
};

using zq_show = void(zq_stack_data *call, const zq_shown_as *as, zq_board_slot *board TSRMLS_DC);
/* The beginning of a statement: an argument; that of a PDOStatement; the one prepared last. */
zq_show zq_show_argument, zq_show_property, zq_show_prepared;
/* After such a call: all of the statement that the board has room for. */
void zq_show_whole_statement(zq_stack_data *call, const zq_shown_as *as TSRMLS_DC);
zq_show zq_show_function; /* its name, which tells the operation */
zq_show zq_show_curl;     /* the handle's URL */
zq_show zq_show_stream;   /* the first argument, if it is a URL */
zq_show zq_show_soap;     /* the second one */
zq_show zq_show_client;   /* an outgoing call by its function's name */
/* After a call that may set the URL of a curl handle: it is told when the handle is used. */
void zq_keep_url(zq_stack_data *call TSRMLS_DC);

/* By the recorder; a row of the dispatch has it at compile time. */
constexpr zq_shown_as zq_shown_of(zq_performance_callback record)
{
	if (const zq_sql_api *api = zq_sql_api_of(record)) {
		const bool is_prepared = api == &sql_mysql_prepared || api == &sql_mysqli_stmt_execute ||
			api == &sql_pg_prepared || api == &sql_oracle_prepared;
		return {is_prepared                         ? zq_show_prepared
				: api == &sql_pdo_statement_execute ? zq_show_property
													: zq_show_argument,
			ZQ_BOARD_SQL, api, false};
	}
	const struct {
		zq_performance_callback record;
		zq_shown_as as;
	} rows[] = {
		{performance_sql<sql_pg_insert>, {zq_show_function, ZQ_BOARD_SQL, NULL, false}},
		{performance_sql<sql_pg_delete>, {zq_show_function, ZQ_BOARD_SQL, NULL, false}},
		{performance_memcached, {zq_show_function, ZQ_BOARD_CACHE, NULL, false}},
		{performance_redis, {zq_show_function, ZQ_BOARD_CACHE, NULL, false}},
		{performance_mongo_collection, {zq_show_function, ZQ_BOARD_CACHE, NULL, false}},
		{performance_mongo_script, {zq_show_function, ZQ_BOARD_CACHE, NULL, false}},
		{performance_mongo_manager, {zq_show_function, ZQ_BOARD_CACHE, NULL, false}},
		{performance_curl_exec, {zq_show_curl, ZQ_BOARD_HTTP, NULL, false}},
		{performance_curl_multi_exec, {zq_show_client, ZQ_BOARD_HTTP, NULL, false}},
		{performance_file_get_contents, {zq_show_stream, ZQ_BOARD_HTTP, NULL, false}},
		{performance_fopen, {zq_show_stream, ZQ_BOARD_HTTP, NULL, false}},
		{performance_soapclient, {zq_show_soap, ZQ_BOARD_HTTP, NULL, false}},
		{performance_httprequest_send, {zq_show_client, ZQ_BOARD_HTTP, NULL, false}},
		{performance_curl_init, {NULL, ZQ_BOARD_NOTHING, NULL, true}},
		{performance_curl_setopt, {NULL, ZQ_BOARD_NOTHING, NULL, true}},
	};
	for (const auto &row : rows) {
		if (row.record == record) {
			return row.as;
		}
	}
	return {NULL, ZQ_BOARD_NOTHING, NULL, false};
}

#endif
