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

/* By the recorder. Not a table of addresses: under the sanitizers two functions' addresses are no constants to compare.
 */
template <zq_performance_callback record>
inline constexpr zq_shown_as zq_shown = {NULL, ZQ_BOARD_NOTHING, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysql_query>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_mysql_query, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysql_db_query>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_mysql_db_query, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysql_argument_0>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_mysql_argument_0, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysql_argument_1>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_mysql_argument_1, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysqli_method>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_mysqli_method, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pg_query>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_pg_query, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pg_query_params>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_pg_query_params, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_sqlite_argument_0>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_sqlite_argument_0, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_sqlite_argument_1>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_sqlite_argument_1, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pdo_query>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_pdo_query, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pdo_exec>> = {
	zq_show_argument, ZQ_BOARD_SQL, &sql_pdo_exec, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysql_prepared>> = {
	zq_show_prepared, ZQ_BOARD_SQL, &sql_mysql_prepared, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_mysqli_stmt_execute>> = {
	zq_show_prepared, ZQ_BOARD_SQL, &sql_mysqli_stmt_execute, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pg_prepared>> = {
	zq_show_prepared, ZQ_BOARD_SQL, &sql_pg_prepared, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_oracle_prepared>> = {
	zq_show_prepared, ZQ_BOARD_SQL, &sql_oracle_prepared, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pdo_statement_execute>> = {
	zq_show_property, ZQ_BOARD_SQL, &sql_pdo_statement_execute, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pg_insert>> = {zq_show_function, ZQ_BOARD_SQL, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_sql<sql_pg_delete>> = {zq_show_function, ZQ_BOARD_SQL, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_memcached> = {zq_show_function, ZQ_BOARD_CACHE, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_redis> = {zq_show_function, ZQ_BOARD_CACHE, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_mongo_collection> = {zq_show_function, ZQ_BOARD_CACHE, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_mongo_script> = {zq_show_function, ZQ_BOARD_CACHE, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_mongo_manager> = {zq_show_function, ZQ_BOARD_CACHE, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_curl_exec> = {zq_show_curl, ZQ_BOARD_HTTP, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_curl_multi_exec> = {zq_show_client, ZQ_BOARD_HTTP, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_file_get_contents> = {zq_show_stream, ZQ_BOARD_HTTP, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_fopen> = {zq_show_stream, ZQ_BOARD_HTTP, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_soapclient> = {zq_show_soap, ZQ_BOARD_HTTP, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_httprequest_send> = {zq_show_client, ZQ_BOARD_HTTP, NULL, false};
template <>
inline constexpr zq_shown_as zq_shown<performance_curl_init> = {NULL, ZQ_BOARD_NOTHING, NULL, true};
template <>
inline constexpr zq_shown_as zq_shown<performance_curl_setopt> = {NULL, ZQ_BOARD_NOTHING, NULL, true};

#endif
