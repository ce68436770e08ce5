/* Recording of database calls. Each kind of call is a row of data: whose database, where its statement is, who knows
 * why it failed, how to ask for its plan. The steps are the same for all and know no client library. */
#include "zqp_wrapper_database.h"

#include "zqp_component.h"
#include "zqp_exception.h"
#include "zqp_json.h"
#include "zqp_tracer.h"

/* What a record takes besides its texts: list node, the heap's own words. */
static const size_t RECORD_BYTES = 80;

/* ---- where the statement is ---- */

template <int index>
static const char *argument(zq_stack_data *call, char **TSRMLS_DC)
{
	return get_argument_char(call->execute_data, index);
}

template <int index>
static const char *argument_from_end(zq_stack_data *call, char **TSRMLS_DC)
{
	return get_reverse_argument_char(call->execute_data, index);
}

static const char *prepared(zq_stack_data *, char **TSRMLS_DC)
{
	return ZQG(prepared_sql);
}

/* Of a PDOStatement, whose class declares nothing else. */
static const char *query_string(zq_stack_data *call, char **TSRMLS_DC)
{
	const zval *value = zq_only_property(call->object TSRMLS_CC);
	return value && Z_TYPE_P(value) == IS_STRING ? Z_STRVAL_P(value) : NULL;
}

/* pg_insert() and pg_delete() make their statements out of a table's name and an array. */
static const char *made_of_array(zq_stack_data *call, const char *verb, const char *join, char **built TSRMLS_DC)
{
	smart_str text = {};
	const char *table = built ? get_argument_char(call->execute_data, 1) : NULL;
	if (!table) {
		return NULL;
	}
	zq_append_text(&text, verb);
	zq_append_text(&text, table);
	zq_append_text(&text, join);
	get_argument_array(call->execute_data, &text, 2 TSRMLS_CC);
	return *built = zq_buffer_text(&text);
}

static const char *inserted(zq_stack_data *call, char **built TSRMLS_DC)
{
	return made_of_array(call, "INSERT INTO ", " VALUE ", built TSRMLS_CC); /* the daemon knows this spelling */
}

static const char *deleted(zq_stack_data *call, char **built TSRMLS_DC)
{
	return made_of_array(call, "DELETE FROM ", " WHERE ", built TSRMLS_CC);
}

/* ---- why it failed ---- */

/* Copy of a text longer than `too_short` bytes, which is then released with its value; null for anything else. */
static char *take_text(zval *value, int too_short TSRMLS_DC)
{
	char *text = NULL;
	if (Z_TYPE_P(value) == IS_STRING && Z_STRLEN_P(value) > too_short) {
		text = estrndup(Z_STRVAL_P(value), Z_STRLEN_P(value));
	}
	zq_release_result(value TSRMLS_CC);
	return text;
}

static char *error_of_link(const zq_sql_api *api, zq_stack_data *call TSRMLS_DC)
{
	zval text, *link = zq_sql_link(api->client, call);
	if (link && Z_TYPE_P(link) == IS_BOOL) {
		return NULL; /* a connection that never was */
	}
	if (zq_call_named(NULL, api->client->error, &text, link ? 1 : 0, &link TSRMLS_CC) != SUCCESS) {
		return NULL;
	}
	return take_text(&text, 2 TSRMLS_CC);
}

static char *error_info(const zq_sql_api *api, zq_stack_data *call TSRMLS_DC)
{
	zval info;
	smart_str text = {};
	if (!call->object || Z_TYPE_P(call->object) != IS_OBJECT ||
		zq_call_named(call->object, api->client->error, &info, 0, NULL TSRMLS_CC) != SUCCESS) {
		return NULL;
	}
	zq_json_encode(&text, &info, 0 TSRMLS_CC);
	zq_release_result(&info TSRMLS_CC);
	return zq_buffer_text(&text);
}

static char *error_property(const zq_sql_api *, zq_stack_data *call TSRMLS_DC)
{
	zval text;
	return zq_read_property(NULL, call->object, "error", &text TSRMLS_CC) == SUCCESS ? take_text(&text, 0 TSRMLS_CC)
																					 : NULL;
}

/* ---- the rows ---- */

static constexpr zq_sql_client mysql_query = {.error = "mysql_error",
	.query = "mysql_query",
	.fetch = "mysql_fetch_object",
	.dialect = "MySQL",
	.failure = NULL,
	.link_argument = 1,
	.count_with_link = 2,
	.link_is_first = false,
	.passes_parameters = false};
static constexpr zq_sql_client mysql_db_query = {.error = "mysql_error",
	.query = "mysql_query",
	.fetch = "mysql_fetch_object",
	.dialect = "MySQL",
	.failure = NULL,
	.link_argument = 2,
	.count_with_link = 3,
	.link_is_first = false,
	.passes_parameters = false};
static constexpr zq_sql_client pg_query = {.error = "pg_last_error",
	.query = "pg_query",
	.fetch = "pg_fetch_object",
	.dialect = "PGSQL",
	.failure = "pg query explain fail",
	.link_argument = 0,
	.count_with_link = 2,
	.link_is_first = true,
	.passes_parameters = false};
static constexpr zq_sql_client pg_query_params = {.error = "pg_last_error",
	.query = "pg_query_params",
	.fetch = "pg_fetch_object",
	.dialect = "PGSQL",
	.failure = "pg query explain fail",
	.link_argument = 0,
	.count_with_link = 3,
	.link_is_first = true,
	.passes_parameters = true};
static constexpr zq_sql_client pdo_query = {.error = "PDO::errorInfo",
	.query = "PDO::query",
	.fetch = "PDOStatement::fetch",
	.dialect = "PDO",
	.failure = "get pdo explain fail",
	.link_argument = 0,
	.count_with_link = 0,
	.link_is_first = false,
	.passes_parameters = false};
static constexpr zq_sql_client pdo_statement = {.error = "PDOStatement::errorInfo",
	.query = NULL,
	.fetch = NULL,
	.dialect = NULL,
	.failure = NULL,
	.link_argument = 0,
	.count_with_link = 0,
	.link_is_first = false,
	.passes_parameters = false};

const zq_sql_api sql_mysql_query = {"MySQL", argument<0>, error_of_link, &mysql_query, false, ZQ_NOT_PDO, 0};
const zq_sql_api sql_mysql_db_query = {"MySQL", argument<1>, error_of_link, &mysql_db_query, false, ZQ_NOT_PDO, 1};
const zq_sql_api sql_mysql_argument_0 = {"MySQL", argument<0>, NULL, NULL, false, ZQ_NOT_PDO, 0};
const zq_sql_api sql_mysql_argument_1 = {"MySQL", argument<1>, NULL, NULL, false, ZQ_NOT_PDO, 1};
const zq_sql_api sql_mysql_prepared = {"MySQL", prepared, NULL, NULL, false};
const zq_sql_api sql_mysqli_method = {"MySQL", argument<0>, error_property, NULL, true, ZQ_NOT_PDO, 0};
const zq_sql_api sql_mysqli_stmt_execute = {"MySQL", prepared, error_property, NULL, true};
const zq_sql_api sql_pg_query = {"PostgreSQL", argument_from_end<0>, error_of_link, &pg_query, false, ZQ_NOT_PDO, -1};
const zq_sql_api sql_pg_query_params = {
	"PostgreSQL", argument_from_end<1>, error_of_link, &pg_query_params, false, ZQ_NOT_PDO, -2};
const zq_sql_api sql_pg_prepared = {"PostgreSQL", prepared, NULL, NULL, false};
const zq_sql_api sql_pg_insert = {"PostgreSQL", inserted, NULL, NULL, false};
const zq_sql_api sql_pg_delete = {"PostgreSQL", deleted, NULL, NULL, false};
const zq_sql_api sql_sqlite_argument_0 = {"SQLite", argument<0>, NULL, NULL, false, ZQ_NOT_PDO, 0};
const zq_sql_api sql_sqlite_argument_1 = {"SQLite", argument<1>, NULL, NULL, false, ZQ_NOT_PDO, 1};
const zq_sql_api sql_oracle_prepared = {"Oracle", prepared, NULL, NULL, false};
const zq_sql_api sql_pdo_query = {NULL, argument<0>, error_info, &pdo_query, false, ZQ_PDO_CONNECTION, 0};
const zq_sql_api sql_pdo_exec = {NULL, argument<0>, NULL, NULL, false, ZQ_PDO_CONNECTION, 0};
const zq_sql_api sql_pdo_statement_execute = {NULL, query_string, error_info, &pdo_statement, false, ZQ_PDO_STATEMENT};

/* ---- the steps ---- */

static int returned_false(zq_stack_data *call)
{
	zval *value = zq_returned_value(call);
	return value && Z_TYPE_P(value) == IS_BOOL && !Z_BVAL_P(value);
}

static void report_failure(const zq_sql_api *api, zq_stack_data *call, const char *statement TSRMLS_DC)
{
	if (!api->error || !returned_false(call) || !ZQG(error_collector_enabled) ||
		!ZQG(error_collector_record_db_errors) || ZQG(error)) {
		return;
	}
	char *message = api->error(api, call TSRMLS_CC);
	if (message) {
		zq_db_error(message, statement TSRMLS_CC);
		efree(message);
	}
}

/* A worker may run queries for hours: beyond a bound an action keeps only sums. */
static bool is_recorded_full(const zend_zqprof_globals *g TSRMLS_DC)
{
	if (!g->sqls) {
		return true;
	}
	if (g->recorded_sql_bytes < zq_most_recorded_bytes(TSRMLS_C)) {
		return false;
	}
	zq_note_recorded_limit("statements" TSRMLS_CC);
	return true;
}

/* A repetition counts as much: the report repeats the record. */
static void count_bytes(zend_zqprof_globals *g, const sql_element *record)
{
	g->recorded_sql_bytes += RECORD_BYTES + strlen(record->statement);
	g->recorded_sql_bytes += record->stack ? zq_stack_size(record->stack) : 0;
	g->recorded_sql_bytes += record->explain ? strlen(record->explain) : 0;
}

/* What only a traced action keeps, of slow statements. */
static bool wants_stack(const zend_zqprof_globals *g, int elapsed_ms)
{
	return g->action_tracer_enabled && g->action_tracer_slow_sql && elapsed_ms >= g->action_tracer_slow_sql_threshold;
}

static bool wants_plan(const zend_zqprof_globals *g, const zq_sql_api *api, int elapsed_ms)
{
	return g->action_tracer_enabled && g->action_tracer_explain_enabled && api->client && api->client->query &&
		elapsed_ms >= g->action_tracer_explain_threshold;
}

/* Appends the trace element of a statement. A configured SQL log takes the statement's place in it. */
static void trace_statement(zq_stack_data *call, uint64 begin_us, uint64 end_us, sql_element *record TSRMLS_DC)
{
	if (ZQG(action_tracer_log_sql)) {
		zq_trace_call(call->cls, call->func, call->execute_data, begin_us, end_us, ZQ_TRACER_PLAIN, NULL TSRMLS_CC);
	} else {
		zq_trace_call(call->cls, call->func, call->execute_data, begin_us, end_us, ZQ_TRACER_SQL, record TSRMLS_CC);
	}
}

/* What tells the vendor of the very object of a call to PDO; null for other calls, and when it cannot be told. */
static const void *driver_of(const zq_details *details, const zq_sql_api *api, zq_stack_data *call)
{
	return api->pdo && zq_is_pdo_method(call) ? zq_pdo_driver(api->pdo, call->object, details->objects) : NULL;
}

static zend_never_inline unsigned find_place(zq_details *details, const zq_sql_api *api, zq_stack_data *call TSRMLS_DC)
{
	zend_execute_data *frame = call->execute_data;
	if (const void *driver = driver_of(details, api, call)) {
		return zq_details_place(details, frame, api, driver, zq_pdo_driver_vendor TSRMLS_CC);
	}
	return zq_details_place(
		details, frame, api->pdo ? NULL : api, api->vendor ? api->vendor : ZQG(pdo_db), NULL TSRMLS_CC);
}

/* Number of the place that ran the statement. */
static inline unsigned place_of(zq_details *details, const zq_sql_api *api, zq_stack_data *call TSRMLS_DC)
{
	if (zq_is_last_call(details, call->execute_data, api)) {
		const void *last = details->last.source;
		const void *driver = EXPECTED(api->pdo == ZQ_PDO_CONNECTION)
			? zq_pdo_driver(ZQ_PDO_CONNECTION, call->object, details->objects)
			: api->pdo ? zq_pdo_driver(ZQ_PDO_STATEMENT, call->object, details->objects)
					   : last;
		if (EXPECTED(driver == last)) {
			return details->last.place;
		}
	}
	return find_place(details, api, call TSRMLS_CC);
}

static int record_statement(const zq_sql_api *api, zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	int elapsed_ms = (int)((end_us - begin_us) / 1000);
	char *built = NULL;
	zq_component_spent_outside(elapsed_ms TSRMLS_CC);
	g->sum_db_metric += elapsed_ms;

	const char *statement = api->statement(call, &built TSRMLS_CC);
	sql_element *record = NULL;
	unsigned place = ZQ_NO_PLACE;
	if (zq_details *details = g->details) {
		details->database_us += end_us - begin_us;
		place = place_of(details, api, call TSRMLS_CC);
	}
	int has_stack = wants_stack(g, elapsed_ms), has_plan = wants_plan(g, api, elapsed_ms);
	int is_traced = g->action_tracer_enabled && end_us - begin_us > g->tracer_threshold_tick;
	if (statement && !is_recorded_full(g TSRMLS_CC)) {
		const char *vendor = api->vendor ? api->vendor : g->pdo_db;
		record = zq_keep_statement(g->sqls, vendor, statement, elapsed_ms, place,
			!has_stack && !has_plan && !is_traced /* each has an element of its own in the trace */);
	}
	if (statement || api->fails_without_statement) {
		report_failure(api, call, statement TSRMLS_CC);
	}
	if (record && has_stack) {
		record->stack = zq_code_stack_text(TSRMLS_C);
	}
	if (record && has_plan) {
		record->explain = zq_explain(api, call, statement TSRMLS_CC);
	}
	if (built) {
		efree(built);
	}
	if (!record) {
		if (g->details) {
			g->details->unlisted_statements++;
		}
		return 0;
	}
	count_bytes(g, record);
	if (is_traced) {
		trace_statement(call, begin_us, end_us, record TSRMLS_CC);
	}
	return g->action_tracer_enabled != 0;
}

int zq_record_sql(const zq_sql_api *api, zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	zq_lift_memory_limit(TSRMLS_C); /* a failed statement is copied in full, and drivers quote it */
	int taken = record_statement(api, call, begin_us, end_us TSRMLS_CC);
	zq_restore_memory_limit(TSRMLS_C);
	return taken;
}

/* ---- calls that are running ---- */

template <const zq_sql_api &...apis>
static const zq_sql_api *api_of(zq_performance_callback record)
{
	const zq_sql_api *found = NULL;
	((record == performance_sql<apis> ? (void)(found = &apis) : (void)0), ...);
	return found;
}

bool zq_sql_running(zq_performance_callback record, zq_stack_data *call, zq_running_statement *found TSRMLS_DC)
{
	const zq_sql_api *api = api_of<sql_mysql_query, sql_mysql_db_query, sql_mysql_argument_0, sql_mysql_argument_1,
		sql_mysql_prepared, sql_mysqli_method, sql_mysqli_stmt_execute, sql_pg_query, sql_pg_query_params,
		sql_pg_prepared, sql_sqlite_argument_0, sql_sqlite_argument_1, sql_oracle_prepared, sql_pdo_query, sql_pdo_exec,
		sql_pdo_statement_execute>(record);
	if (!api) {
		return false;
	}
	const char *vendor = api->vendor ? api->vendor : ZQG(pdo_db);
	*found = {api->statement(call, NULL TSRMLS_CC), vendor, vendor, NULL};
	zq_details *details = ZQG(details);
	if (const void *driver = details ? driver_of(details, api, call) : NULL) {
		found->source = driver;
		found->vendor_of = zq_pdo_driver_vendor;
	}
	return found->text != NULL;
}

/* ---- prepared statements ---- */

static void remember(const char *statement TSRMLS_DC)
{
	if (statement) {
		ZQG(prepared_len) = strlen(statement);
		zq_replace_text(&ZQG(prepared_sql), estrndup(statement, ZQG(prepared_len)));
	}
}

int performance_prepare_argument_1(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	remember(get_argument_char(call->execute_data, 1) TSRMLS_CC);
	return 0;
}

int performance_prepare_last_argument(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	remember(get_reverse_argument_char(call->execute_data, 0) TSRMLS_CC);
	return 0;
}

int performance_mysqli_prepare_method(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	const char *statement = get_argument_char(call->execute_data, 0);
	remember(statement TSRMLS_CC);
	zq_lift_memory_limit(TSRMLS_C);
	report_failure(&sql_mysqli_method, call, statement TSRMLS_CC);
	zq_restore_memory_limit(TSRMLS_C);
	return 0;
}
