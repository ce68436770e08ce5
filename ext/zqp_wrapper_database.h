/* Recording of database calls: one implementation of the steps, and one row of data for each kind of call. */
#ifndef ZQP_WRAPPER_DATABASE_H
#define ZQP_WRAPPER_DATABASE_H

#include "zqp_wrapper_pdo.h"

struct zq_sql_api;

/* The statement of a call: borrowed, or text of its own that is also stored in `*built` for the caller to free. Null
 * when the call has none, and when it would have to be made although `built` is null. */
typedef const char *(*zq_statement_source)(zq_stack_data *call, char **built TSRMLS_DC);
/* The driver's words on the call that just failed, owned by the caller; null when there are none. */
typedef char *(*zq_error_source)(const zq_sql_api *api, zq_stack_data *call TSRMLS_DC);

/* How a client library is asked about the statement that it just ran. Names are functions, or methods as
 * "Class::method", which the object of the call (`query`, `error`) or of the result (`fetch`) receives. */
typedef struct zq_sql_client {
	const char *error;      /* gives the error text */
	const char *query;      /* runs the plan's statement; null: plans are never asked for */
	const char *fetch;      /* gives the next row of the result as an object */
	const char *dialect;    /* word in front of the plan */
	const char *failure;    /* logged at DEBUG when there is no plan; null: nothing is */
	int link_argument;      /* the connection, given when the call has exactly `count_with_link` arguments */
	int count_with_link;    /* 0: methods, which have their object instead */
	bool link_is_first;     /* in `query` */
	bool passes_parameters; /* the call's last argument goes along after the statement */
} zq_sql_client;

/* One kind of call. */
typedef struct zq_sql_api {
	const char *vendor; /* null: of the request's last PDO connection */
	zq_statement_source statement;
	zq_error_source error;        /* null: its failures are not reported */
	const zq_sql_client *client;  /* null: neither error function nor plan */
	bool fails_without_statement; /* a failure counts even when no statement could be read */
	zq_pdo_object pdo = ZQ_NOT_PDO;
	int argument = 0; /* that is the statement, if one is: from 0; -1 is the last one, -2 that before it */
} zq_sql_api;

/* Records one call with its times in us: duration, statement, failure, and at their thresholds stack, plan and trace
 * element. 1: the default trace element is not wanted; 0: it is, when the call was slow. Beyond
 * zq_most_recorded_bytes() of statements only durations and failures are kept. */
int zq_record_sql(const zq_sql_api *api, zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* What a running call runs, by its recorder; false when that is none of these, and when the call makes its statement.
 * Runs no PHP code and takes no memory. */
bool zq_sql_running(zq_performance_callback record, zq_stack_data *call, zq_running_statement *found TSRMLS_DC);

/* The recorder for one row. */
template <const zq_sql_api &api>
int performance_sql(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	return zq_record_sql(&api, call, begin_us, end_us TSRMLS_CC);
}

/* The rows; "argument" counts from 0. */
extern const zq_sql_api sql_mysql_query, sql_mysql_db_query, sql_mysql_argument_0, sql_mysql_argument_1,
	sql_mysql_prepared;
extern const zq_sql_api sql_mysqli_method, sql_mysqli_stmt_execute;
extern const zq_sql_api sql_pg_query, sql_pg_query_params, sql_pg_prepared, sql_pg_insert, sql_pg_delete;
extern const zq_sql_api sql_sqlite_argument_0, sql_sqlite_argument_1, sql_oracle_prepared;
extern const zq_sql_api sql_pdo_query, sql_pdo_exec, sql_pdo_statement_execute;

inline constexpr zq_performance_callback performance_mysql_query = performance_sql<sql_mysql_query>;
inline constexpr zq_performance_callback performance_mysql_db_query = performance_sql<sql_mysql_db_query>;
inline constexpr zq_performance_callback performance_pg_query = performance_sql<sql_pg_query>;
inline constexpr zq_performance_callback performance_pg_query_params = performance_sql<sql_pg_query_params>;
inline constexpr zq_performance_callback performance_pdo_query = performance_sql<sql_pdo_query>;

/* Calls that only prepare: the statement is kept for the execute calls that follow. Always 0. */
int performance_prepare_argument_1(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_prepare_last_argument(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_mysqli_prepare_method(
	zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC); /* reports failures too */

/* The connection of a procedural call; null when the call did not name one. Borrowed. */
static inline zval *zq_sql_link(const zq_sql_client *client, zq_stack_data *call)
{
	if (!client->count_with_link || get_arguments_count(call->execute_data) != client->count_with_link) {
		return NULL;
	}
	return get_argument_zval(call->execute_data, client->link_argument);
}

/* ---- zqp_wrapper_explain.cpp ---- */
/* Asks the database for the plan of the statement that just ran, on the same connection: JSON, owned by the caller, or
 * null when there is no plan. Runs a second statement, so only one that is alone in its text and that plans cannot
 * change is sent. */
char *zq_explain(const zq_sql_api *api, zq_stack_data *call, const char *statement TSRMLS_DC);
/* True when no ";" except a last one is outside quotes and comments, whichever database reads them. Text that databases
 * read differently (escapes, "#", "[", nested comments, dollar quotes) counts as two statements when it has a ";". */
bool zq_is_single_statement(const char *statement);
/* True when every database answers EXPLAIN in front of it with a plan. A refused EXPLAIN ends a PostgreSQL transaction.
 */
bool zq_is_plannable(const char *statement);

#endif
