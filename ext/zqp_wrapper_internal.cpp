/* Dispatch around every internal call: which function or method of the engine or an extension is handled, by what, and
 * under which condition. To watch another one, add a row; nothing below the tables knows a name. */
#include <algorithm>
#include <span>

#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_name_table.h"
#include "zqp_nosql.h"
#include "zqp_store_classes.h"
#include "zqp_trace_context.h"
#include "zqp_tracer.h"
#include "zqp_wrapper_board.h"

namespace {

const uint64 SLOW_US = 10000; /* from which on the board gets all of a statement, when the call has ended */

/* Whether a row's handler is wanted in this request, at this moment. */
typedef int (*zq_condition)(TSRMLS_D);

/* Runs before a plain function. */
struct zq_before_row {
	zq_name name;
	zq_condition wanted; /* null: always */
	void (*handle)(zq_stack_data *call TSRMLS_DC);
};

struct zq_recorder {
	zq_performance_callback record;
	zq_shown_as shown;
};
template <zq_performance_callback record>
constexpr zq_recorder with = {record, zq_shown<record>};

/* Runs after a plain function, or a method of a class below. */
struct zq_after_row {
	zq_name name; /* "*" in a class: every method that no row before it has */
	zq_condition wanted;
	zq_recorder recorder;
};

struct zq_class_row {
	zq_name name;
	std::span<const zq_after_row> methods;
};

/* Inside a client library its own record stands for the call. */
int is_on_its_own(TSRMLS_D)
{
	return !ZQG(webservice_should_ignored);
}
int may_carry_identity(TSRMLS_D)
{
	return is_on_its_own(TSRMLS_C) && zq_identity_is_set(TSRMLS_C);
}
int carries_trace_context(TSRMLS_D)
{
	return zq_trace_context_of(TSRMLS_C) != NULL;
}
int handshake_is_due(TSRMLS_D)
{
	return ZQG(ws_enabled) && zq_identity_is_set(TSRMLS_C);
}
int collects_errors(TSRMLS_D)
{
	return ZQG(error_collector_enabled);
}
int reads_headers(TSRMLS_D)
{
	return ZQG(error_collector_enabled) || ZQG(rum_enabled);
}

/* Another program takes the process over: nobody kills the request. */
void leave_board(zq_stack_data *TSRMLS_DC)
{
	zq_board_close(zq_globals(TSRMLS_C));
}

constexpr auto before_rows = std::to_array<zq_before_row>({
	{"ob_get_contents", NULL, wrapper_ob_flush},
	{"ob_flush", NULL, wrapper_ob_flush},
	{"ob_get_flush", NULL, wrapper_ob_flush},
	{"ob_end_flush", NULL, wrapper_ob_flush},
	{"fwrite", handshake_is_due, wrapper_fwrite},
	{"fopen", is_on_its_own, wrapper_fopen},
	{"file_get_contents", is_on_its_own, wrapper_file_get_contents},
	{"curl_setopt", zq_identity_is_set, wrapper_curl_setopt},
	{"curl_setopt_array", zq_identity_is_set, wrapper_curl_setopt_array},
	{"curl_multi_add_handle", zq_identity_is_set, wrapper_curl_multi_add_handle},
	{"curl_copy_handle", zq_identity_is_set, wrapper_curl_copy_handle},
	{"curl_exec", NULL, wrapper_curl_exec},
	{"header", reads_headers, wrapper_header},
	{"pcntl_exec", NULL, leave_board},
	{"set_error_handler", collects_errors, wrapper_set_error_handler},
});

/* Runs before a method, once its class has been found below. */
struct zq_before_method_row {
	zq_name cls, name;
	zq_condition wanted;
	void (*handle)(zq_stack_data *call TSRMLS_DC);
};
constexpr zq_before_method_row before_method_rows[] = {
	{"SoapClient", "__doRequest", carries_trace_context, wrapper_soap_request},
};

constexpr auto after_rows = std::to_array<zq_after_row>({
	{"mysql_query", NULL, with<performance_mysql_query>},
	{"mysql_db_query", NULL, with<performance_mysql_db_query>},
	{"mysql_unbuffered_query", NULL, with<performance_sql<sql_mysql_argument_0>>},
	{"mysqli_query", NULL, with<performance_sql<sql_mysql_argument_1>>},
	{"mysqli_real_query", NULL, with<performance_sql<sql_mysql_argument_1>>},
	{"mysqli_multi_query", NULL, with<performance_sql<sql_mysql_argument_1>>},
	{"mysqli_prepare", NULL, with<performance_prepare_argument_1>},
	{"mysqli_stmt_prepare", NULL, with<performance_prepare_argument_1>},
	{"mysqli_stmt_execute", NULL, with<performance_sql<sql_mysql_prepared>>},
	{"sqlite_query", NULL, with<performance_sql<sql_sqlite_argument_1>>},
	{"sqlite_exec", NULL, with<performance_sql<sql_sqlite_argument_1>>},
	{"sqlite_unbuffered_query", NULL, with<performance_sql<sql_sqlite_argument_1>>},
	{"oci_parse", NULL, with<performance_prepare_argument_1>},
	{"oci_execute", NULL, with<performance_sql<sql_oracle_prepared>>},
	{"pg_query", NULL, with<performance_pg_query>},
	{"pg_query_params", NULL, with<performance_pg_query_params>},
	{"pg_prepare", NULL, with<performance_prepare_last_argument>},
	{"pg_execute", NULL, with<performance_sql<sql_pg_prepared>>},
	{"pg_insert", NULL, with<performance_sql<sql_pg_insert>>},
	{"pg_delete", NULL, with<performance_sql<sql_pg_delete>>},
	{"fopen", NULL, with<performance_fopen>},
	{"file_get_contents", NULL, with<performance_file_get_contents>},
	{"curl_init", may_carry_identity, with<performance_curl_init>},
	{"curl_reset", may_carry_identity, with<performance_curl_reset>},
	{"curl_setopt", may_carry_identity, with<performance_curl_setopt>},
	{"curl_copy_handle", zq_identity_is_set, with<performance_curl_copy_handle>},
	{"curl_exec", is_on_its_own, with<performance_curl_exec>},
	{"curl_multi_exec", is_on_its_own, with<performance_curl_multi_exec>},
	{"fwrite", handshake_is_due, with<performance_fwrite>},
	{"fread", handshake_is_due, with<performance_fread>},
});

constexpr zq_after_row pdo_methods[] = {
	{"__construct", NULL, with<performance_pdo_construct>},
	{"query", NULL, with<performance_pdo_query>},
	{"exec", NULL, with<performance_sql<sql_pdo_exec>>},
};
constexpr zq_after_row pdo_statement_methods[] = {
	{"execute", NULL, with<performance_sql<sql_pdo_statement_execute>>},
};
constexpr zq_after_row mysqli_methods[] = {
	{"prepare", NULL, with<performance_mysqli_prepare_method>},
	{"query", NULL, with<performance_sql<sql_mysqli_method>>},
	{"real_query", NULL, with<performance_sql<sql_mysqli_method>>},
	{"multi_query", NULL, with<performance_sql<sql_mysqli_method>>},
};
constexpr zq_after_row mysqli_stmt_methods[] = {
	{"prepare", NULL, with<performance_mysqli_prepare_method>},
	{"execute", NULL, with<performance_sql<sql_mysqli_stmt_execute>>},
};
constexpr zq_after_row sqlite3_methods[] = {
	{"query", NULL, with<performance_sql<sql_sqlite_argument_0>>},
	{"querySingle", NULL, with<performance_sql<sql_sqlite_argument_0>>},
	{"exec", NULL, with<performance_sql<sql_sqlite_argument_0>>},
};
constexpr zq_after_row sqlite_database_methods[] = {
	{"queryExec", NULL, with<performance_sql<sql_sqlite_argument_0>>},
	{"unbufferedQuery", NULL, with<performance_sql<sql_sqlite_argument_0>>},
	{"query", NULL, with<performance_sql<sql_sqlite_argument_0>>},
};

constexpr zq_after_row memcached_methods[] = {
	{"*", NULL, with<performance_memcached>},
};
constexpr zq_after_row redis_methods[] = {
	{"*", NULL, with<performance_redis>},
};
constexpr zq_after_row mongo_collection_methods[] = {
	{"*", NULL, with<performance_mongo_collection>},
};
constexpr zq_after_row mongo_database_methods[] = {
	{"execute", NULL, with<performance_mongo_script>},
};
constexpr zq_after_row mongo_manager_methods[] = {
	{"executeCommand", NULL, with<performance_mongo_manager>},
	{"executeQuery", NULL, with<performance_mongo_manager>},
	{"executeBulkWrite", NULL, with<performance_mongo_manager>},
};

constexpr zq_after_row soap_client_methods[] = {
	{"SoapClient", zq_identity_is_set,
		with<performance_soapclient_construct>}, /* its constructor has the old style's name */
	{"__doRequest", NULL, with<performance_soapclient>},
};
constexpr zq_after_row http_request_methods[] = {
	{"send", is_on_its_own, with<performance_httprequest_send>},
};

/* Recognised by the class that declares the method. */
constexpr auto class_rows = std::to_array<zq_class_row>({
	{"PDO", pdo_methods},
	{"PDOStatement", pdo_statement_methods},
	{"mysqli", mysqli_methods},
	{"mysqli_stmt", mysqli_stmt_methods},
	{"SQLite3", sqlite3_methods},
	{"SQLiteDatabase", sqlite_database_methods},
	{"Memcache", memcached_methods},
	{"MemcachePool", memcached_methods},
	{"Memcached", memcached_methods},
	{"Redis", redis_methods},
	{"RedisCluster", redis_methods},
	{"MongoCollection", mongo_collection_methods},
	{"MongoDB", mongo_database_methods},
	{"MongoDB\\Driver\\Manager", mongo_manager_methods},
	{"SoapClient", soap_client_methods},
	{"HttpRequest", http_request_methods},
});

/* A method that has a row of its own is one whose calls are wanted, and the recorders of these lists pass over all but
 * the operations that zqp_nosql.h lists. */
consteval bool names_only_operations(std::span<const zq_after_row> methods)
{
	return std::ranges::all_of(methods, [](const zq_after_row &method) {
		return method.name.hash == zq_name_hash("*") || zq_is_data_operation(method.name.hash);
	});
}
static_assert(names_only_operations(memcached_methods) && names_only_operations(mongo_collection_methods),
	"a method of a cache or collection is not among the operations of zqp_nosql.h");

/* Whether the class is in zqp_store_classes.h when its methods are those of a store, and only then. */
constexpr bool is_classed(const zq_class_row &row)
{
	const zq_after_row *methods = row.methods.data();
	return zq_is_store_class(row.name.text) ==
		(methods == memcached_methods || methods == redis_methods || methods == mongo_collection_methods ||
			methods == mongo_database_methods || methods == mongo_manager_methods);
}
static_assert(std::ranges::all_of(class_rows, is_classed),
	"the class of a cache or document store is not in zqp_store_classes.h, or another's is");

constexpr auto before_index = zq_index_names(before_rows);
constexpr auto after_index = zq_index_names(after_rows);
constexpr auto class_index = zq_index_names(class_rows);

/* By the first two bytes: reading further would cost every call of the script. */
consteval zq_name_sieve sift_functions()
{
	zq_name_sieve sieve = {};
	for (const zq_before_row &row : before_rows) {
		sieve.admit((unsigned char)row.name.text[0], (unsigned char)row.name.text[1]);
	}
	for (const zq_after_row &row : after_rows) {
		sieve.admit((unsigned char)row.name.text[0], (unsigned char)row.name.text[1]);
	}
	return sieve;
}

consteval int takes_every_method(const zq_class_row &row)
{
	for (const zq_after_row &method : row.methods) {
		if (method.name.hash == zq_name_hash("*")) {
			return 1;
		}
	}
	return 0;
}

/* By first byte and length, which the engine keeps. */
consteval zq_name_sieve sift_classes(int every_method)
{
	zq_name_sieve sieve = {};
	for (const zq_class_row &row : class_rows) {
		if (takes_every_method(row) == every_method) {
			sieve.admit((unsigned char)row.name.text[0], (unsigned char)row.name.length);
		}
	}
	return sieve;
}

/* Methods of the classes that list theirs. */
consteval zq_name_sieve sift_methods()
{
	zq_name_sieve sieve = {};
	for (const zq_class_row &row : class_rows) {
		for (const zq_after_row &method : row.methods) {
			sieve.admit((unsigned char)method.name.text[0], (unsigned char)method.name.text[1]);
		}
	}
	return sieve;
}

constexpr zq_name_sieve function_sieve = sift_functions();
constexpr zq_name_sieve whole_class_sieve = sift_classes(1);
constexpr zq_name_sieve class_sieve = sift_classes(0);
constexpr zq_name_sieve method_sieve = sift_methods();

const zq_after_row *find_method(const zq_class_row *row, const zq_stack_data *call)
{
	for (const zq_after_row &method : row->methods) {
		if (method.name.is(call->func_hash_code, call->func, call->func_length) ||
			method.name.hash == zq_name_hash("*")) {
			return &method;
		}
	}
	return NULL;
}

const zq_after_row *find_recorder(const zq_stack_data *call)
{
	if (!call->cls) {
		return zq_find_row(after_rows, after_index, call->func_hash_code, call->func, call->func_length);
	}
	const zq_class_row *row = zq_find_row(class_rows, class_index, call->cls_hash_code, call->cls, call->cls_length);
	return row ? find_method(row, call) : NULL;
}

/* 1 when a recorder has taken the call. */
int record_call(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	if (!call->func_hash_code) {
		return 0;
	}
	const zq_after_row *row = call->after ? (const zq_after_row *)call->after : find_recorder(call);
	return row && (!row->wanted || row->wanted(TSRMLS_C)) && row->recorder.record(call, begin_us, end_us TSRMLS_CC);
}

void handle_method(zq_stack_data *call TSRMLS_DC)
{
	for (const zq_before_method_row &row : before_method_rows) {
		if (UNEXPECTED(row.name.hash == call->func_hash_code) &&
			row.name.is(call->func_hash_code, call->func, call->func_length) &&
			row.cls.is(call->cls_hash_code, call->cls, call->cls_length) && row.wanted(TSRMLS_C)) {
			row.handle(call TSRMLS_CC);
		}
	}
}

/* Last before the call: the board is being written until it begins. */
void show_call(zq_stack_data *call, zq_board_slot *board TSRMLS_DC)
{
	const zq_after_row *row = find_recorder(call);
	call->after = row;
	if (row && row->recorder.shown.show) {
		row->recorder.shown.show(call, &row->recorder.shown, board TSRMLS_CC);
	}
}

zend_never_inline void show_whole_statement(zq_stack_data *call, zq_board_slot *board TSRMLS_DC)
{
	const zq_shown_as *as = &((const zq_after_row *)call->after)->recorder.shown;
	zq_board_write(board);
	if (as->api) {
		zq_show_whole_statement(call, as TSRMLS_CC);
	}
	zq_board_written(board);
}

inline void end_showing(zq_stack_data *call, zq_board_slot *board, uint64 took_us TSRMLS_DC)
{
	if (UNEXPECTED(took_us >= SLOW_US)) {
		show_whole_statement(call, board TSRMLS_CC);
	}
	zq_board_ends(board, call->shown, call->shown_within, (uint32_t)took_us);
}

} // namespace

int zq_internal_may_be_watched(const char *cls, int cls_len, const char *func)
{
	if (cls && whole_class_sieve.passes((unsigned char)cls[0], (unsigned char)cls_len)) {
		return 1;
	}
	if (!func[0] || (cls && !class_sieve.passes((unsigned char)cls[0], (unsigned char)cls_len))) {
		return 0;
	}
	return (cls ? method_sieve : function_sieve).passes((unsigned char)func[0], (unsigned char)func[1]);
}

void zq_before_internal_call(zq_stack_data *call TSRMLS_DC)
{
	if (UNEXPECTED(ZQG(profile_end_time))) {
		thread_profile("enter function", call->func, call->cls TSRMLS_CC);
	}
	if (!call->func_hash_code) {
		return;
	}
	if (call->cls) {
		handle_method(call TSRMLS_CC);
	} else {
		const zq_before_row *row =
			zq_find_row(before_rows, before_index, call->func_hash_code, call->func, call->func_length);
		if (row && (!row->wanted || row->wanted(TSRMLS_C))) {
			row->handle(call TSRMLS_CC);
		}
	}
	if (zq_board_slot *board = ZQG(board)) {
		show_call(call, board TSRMLS_CC);
	}
}

void zq_after_internal_call(zq_stack_data *call, uint64 begin_us TSRMLS_DC)
{
	if (UNEXPECTED(ZQG(profile_end_time))) {
		thread_profile("leave function", call->func, call->cls TSRMLS_CC);
	}
	if (!call->func_hash_code && !ZQG(action_tracer_enabled)) {
		return; /* nobody wants to know how long it took */
	}
	uint64 end_us = zq_clock_us(&ZQG(clock));
	if (call->shown && ZQG(board)) {
		end_showing(call, ZQG(board), end_us - begin_us TSRMLS_CC);
	} else if (call->after && ((const zq_after_row *)call->after)->recorder.shown.sets_url) {
		zq_keep_url(call TSRMLS_CC);
	}
	if (!record_call(call, begin_us, end_us TSRMLS_CC)) {
		zq_trace_default(call, begin_us, end_us TSRMLS_CC);
	}
}

bool zq_running_statement_of(zend_execute_data *frame, zq_running_statement *found TSRMLS_DC)
{
	zq_callee callee = zq_callee_of(frame TSRMLS_CC);
	zq_stack_data call = {};
	call.execute_data = frame;
	call.object = frame->object;
	call.func = (char *)callee.func;
	call.cls = callee.scope ? callee.scope->name : NULL;
	call.cls_length = callee.scope ? (int)callee.scope->name_length : 0;
	zq_hash_names(&call);
	const zq_after_row *row = find_recorder(&call);
	return row && zq_sql_running(row->recorder.record, &call, found TSRMLS_CC);
}

void zq_trace_default(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	if (ZQG(action_tracer_enabled) && end_us - begin_us > ZQG(tracer_threshold_tick) && begin_us >= ZQG(rinit_tick)) {
		zq_trace_call(call->cls, call->func, call->execute_data, begin_us, end_us, ZQ_TRACER_PLAIN, NULL TSRMLS_CC);
	}
}
