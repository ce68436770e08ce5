/* Plans of slow statements. Asking for one runs a second statement on the script's own connection, so whatever could
 * change more than that connection's counters is left out: a text of several statements, one that databases refuse to
 * plan (a refusal ends a PostgreSQL transaction), a PDO driver that would lose the open result, a statement class whose
 * code belongs to the script. */
#include "zqp_debug.h"
#include "zqp_json.h"
#include "zqp_wrapper_database.h"

/* Constants of the PDO classes, in numbers: the agent is not linked to them. */
enum { PDO_FETCH_OBJECT = 5, PDO_DRIVER_NAME = 16 };

/* ---- one statement ---- */

static bool is_blank(char ch)
{
	return ch == ' ' || (ch >= '\t' && ch <= '\r');
}

/* After the quoted text that starts at `at`; null when it does not end, or databases disagree on where. */
static const char *skip_quoted(const char *at, const char *end)
{
	char quote = *at;
	for (at++; at < end; at++) {
		if (*at == quote) {
			return at + 1;
		}
		/* an escape for some, a character for others; and "`" quotes for some only: nothing that means more to others
		 */
		if (*at == '\\' || (quote == '`' && strchr(";'\"-/$", *at))) {
			return NULL;
		}
	}
	return NULL;
}

/* The same for a comment at `at`: "-- " up to the line's end, or a block without another one or code in it. */
static const char *skip_comment(const char *at, const char *end)
{
	if (*at == '-') {
		if (at + 2 < end && !is_blank(at[2])) {
			return NULL;
		}
		at += strcspn(at, "\r\n");
		return at >= end || *at == '\n' || at[1] == '\n' ? at : NULL;
	}
	if (at[2] == '!' || at[2] == 'M') {
		return NULL;
	}
	for (at += 2; at + 1 < end; at++) {
		if (at[0] == '*' && at[1] == '/') {
			return at + 2;
		}
		if (at[0] == '/' && at[1] == '*') {
			return NULL;
		}
	}
	return NULL;
}

/* The next position after whatever starts at `at`; null for a second statement, or what may hide one. */
static const char *skip_token(const char *at, const char *end)
{
	if ((at[0] == '-' && at[1] == '-') || (at[0] == '/' && at[1] == '*')) {
		return skip_comment(at, end);
	}
	switch (*at) {
	case '\'':
	case '"':
	case '`': return skip_quoted(at, end);
	case ';':
	case '#':
	case '[': /* quotes a name for some */
	case '\\': return NULL;
	case '$': return at[1] >= '0' && at[1] <= '9' ? at + 1 : NULL;
	default: return at + 1;
	}
}

bool zq_is_single_statement(const char *statement)
{
	const char *end = statement + strlen(statement);
	while (end > statement && is_blank(end[-1])) {
		end--;
	}
	if (end > statement && end[-1] == ';') {
		end--;
	}
	if (!memchr(statement, ';', (size_t)(end - statement))) {
		return true;
	}
	const char *at = statement;
	while (at && at < end) {
		at = skip_token(at, end);
	}
	return at != NULL;
}

/* ---- a statement that has a plan ---- */

static const char *first_word(const char *at)
{
	const char *end = at + strlen(at);
	for (;;) {
		if (is_blank(*at) || *at == '(') {
			at++;
		} else if ((at[0] == '-' && at[1] == '-') || (at[0] == '/' && at[1] == '*')) {
			const char *after = skip_comment(at, end);
			if (!after) {
				return "";
			}
			at = after;
		} else {
			return at;
		}
	}
}

static bool is_word_byte(char ch)
{
	char lower = zq_ascii_lower(ch);
	return (lower >= 'a' && lower <= 'z') || (ch >= '0' && ch <= '9') || ch == '_' || ch == '$' || (ch & 0x80);
}

static int starts_with_word(const char *at, const char *word)
{
	size_t len = strlen(word);
	return zq_strncasecmp(at, word, len) == 0 && !is_word_byte(at[len]);
}

/* Anywhere, in quotes as well. */
static bool has_word(const char *text, const char *word)
{
	for (const char *at = text; (at = zq_strcasestr(at, word)) != NULL; at++) {
		if ((at == text || !is_word_byte(at[-1])) && starts_with_word(at, word)) {
			return true;
		}
	}
	return false;
}

bool zq_is_plannable(const char *statement)
{
	static const char *const writing[] = {"INSERT", "REPLACE", "UPDATE", "DELETE"};
	static const char *const reading[] = {"SELECT", "WITH", "VALUES", "TABLE"};
	const char *at = first_word(statement);
	for (const char *word : writing) {
		if (starts_with_word(at, word)) {
			return true;
		}
	}
	for (const char *word : reading) {
		if (starts_with_word(at, word)) {
			return !has_word(statement, "INTO"); /* makes a table or a file, which by now exists */
		}
	}
	return false;
}

/* ---- a connection that can be asked ---- */

static zval *new_text(const char *text)
{
	zval *value;
	MAKE_STD_ZVAL(value);
	ZVAL_STRING(value, text, 1);
	return value;
}

static zval *new_number(long number)
{
	zval *value;
	MAKE_STD_ZVAL(value);
	ZVAL_LONG(value, number);
	return value;
}

static bool is_one_of(const char *text, const char *const *words)
{
	for (; text && *words; words++) {
		if (strcmp(text, *words) == 0) {
			return true;
		}
	}
	return false;
}

static bool has_columns(zval *result TSRMLS_DC)
{
	zval count;
	int found = zq_call_named(result, "PDOStatement::columnCount", &count, 0, NULL TSRMLS_CC) == SUCCESS &&
		Z_TYPE(count) == IS_LONG && Z_LVAL(count) > 0;
	zq_release_result(&count TSRMLS_CC);
	return found;
}

/* The driver of this very object; the vendor is that of the connection made last. What mysql_query() answers with true
 * is no longer explained here: the next statement takes the insert id away, and scripts store it in other tables. */
static int driver_explains(zval *connection, zval *result TSRMLS_DC)
{
	static const char *const drivers[] = {"mysql", "pgsql", "sqlite", NULL};
	zval name, *attribute = new_number(PDO_DRIVER_NAME);
	int known = zq_call_named(connection, "PDO::getAttribute", &name, 1, &attribute TSRMLS_CC) == SUCCESS &&
		Z_TYPE(name) == IS_STRING && is_one_of(Z_STRVAL(name), drivers) &&
		(strcmp(Z_STRVAL(name), "mysql") != 0 || has_columns(result TSRMLS_CC));
	zq_release_result(&name TSRMLS_CC);
	zval_ptr_dtor(&attribute);
	return known;
}

/* A statement object of the script's own class would run the script's code for our statement. */
static int runs_script_code(zend_class_entry *result_class)
{
	zend_function *const special[] = {result_class->constructor, result_class->destructor};
	for (zend_function *function : special) {
		if (function && function->type == ZEND_USER_FUNCTION) {
			return 1;
		}
	}
	return 0;
}

static int pdo_explains(zq_stack_data *call TSRMLS_DC)
{
	static const char *const vendors[] = {"MySQL", "PostgreSQL", "SQLite", NULL};
	zval *result = zq_returned_value(call);
	return Z_TYPE_P(result) == IS_OBJECT && !runs_script_code(Z_OBJCE_P(result)) && call->object &&
		Z_TYPE_P(call->object) == IS_OBJECT && is_one_of(ZQG(pdo_db), vendors) &&
		driver_explains(call->object, result TSRMLS_CC);
}

/* ---- the plan ---- */

/* Runs `text` on the call's connection; SUCCESS leaves a result to fetch from. `parameters` only counts where the
 * client library passes some. */
static int run_text(
	const zq_sql_client *client, zq_stack_data *call, const char *text, zval *parameters, zval *result TSRMLS_DC)
{
	zval *params[3], *link = zq_sql_link(client, call), *statement = new_text(text);
	zend_uint count = 0;
	if (link && client->link_is_first) {
		params[count++] = link;
	}
	params[count++] = statement;
	if (client->passes_parameters) {
		params[count++] = parameters;
	}
	if (link && !client->link_is_first) {
		params[count++] = link;
	}
	zval *object = client->count_with_link ? NULL : call->object;
	int outcome = zq_call_named(object, client->query, result, count, params TSRMLS_CC);
	zval_ptr_dtor(&statement);
	return outcome == SUCCESS && (Z_TYPE_P(result) == IS_RESOURCE || Z_TYPE_P(result) == IS_OBJECT) ? SUCCESS : FAILURE;
}

static int run_explain(const zq_sql_client *client, zq_stack_data *call, const char *statement, zval *result TSRMLS_DC)
{
	char *text;
	spprintf(&text, 0, "EXPLAIN %s", statement);
	zval *last = get_argument_zval(call->execute_data, get_arguments_count(call->execute_data) - 1);
	int outcome = run_text(client, call, text, last, result TSRMLS_CC);
	efree(text);
	return outcome;
}

/* A refused EXPLAIN leaves its error on the connection, where scripts look whether their own query has failed. */
static void clear_error(const zq_sql_client *client, zq_stack_data *call TSRMLS_DC)
{
	zval result, *none;
	MAKE_STD_ZVAL(none);
	array_init(none);
	run_text(client, call, "SELECT 1", none, &result TSRMLS_CC);
	zq_release_result(&result TSRMLS_CC);
	zval_ptr_dtor(&none);
}

/* 1 when there was another row; `row` is to be released in either case. */
static int fetch_row(const zq_sql_client *client, zval *result, zval *row TSRMLS_DC)
{
	int outcome;
	if (client->count_with_link) {
		outcome = zq_call_named(NULL, client->fetch, row, 1, &result TSRMLS_CC);
	} else {
		zval *mode = new_number(PDO_FETCH_OBJECT);
		outcome = zq_call_named(result, client->fetch, row, 1, &mode TSRMLS_CC);
		zval_ptr_dtor(&mode);
	}
	return outcome == SUCCESS && (Z_TYPE_P(row) == IS_OBJECT || Z_TYPE_P(row) == IS_ARRAY);
}

static char *plan_of_rows(const zq_sql_client *client, zval *result TSRMLS_DC)
{
	smart_str plan = {};
	zval row;
	int rows = 0;
	zq_append_char(&plan, '{');
	while (fetch_row(client, result, &row TSRMLS_CC)) {
		if (rows++ == 0) {
			zq_append_text(&plan, "\"dialect\":\"");
			zq_append_text(&plan, client->dialect);
			zq_append_text(&plan, "\",\"keys\":");
			zq_get_explain_header_json(&plan, &row TSRMLS_CC);
			zq_append_text(&plan, ",\"values\":[");
		} else {
			zq_append_char(&plan, ',');
		}
		zq_get_explain_object_json(&plan, &row TSRMLS_CC);
		zq_release_result(&row TSRMLS_CC);
	}
	zq_release_result(&row TSRMLS_CC);
	zq_append_text(&plan, rows ? "]}" : "}");
	return zq_buffer_text(&plan);
}

char *zq_explain(const zq_sql_api *api, zq_stack_data *call, const char *statement TSRMLS_DC)
{
	const zq_sql_client *client = api->client;
	zval *returned = zq_returned_value(call), *result;
	char *plan = NULL;
	if (!returned || Z_TYPE_P(returned) == IS_BOOL) {
		return NULL;
	}
	int is_safe = zq_is_single_statement(statement) && zq_is_plannable(statement) &&
		(client->count_with_link || pdo_explains(call TSRMLS_CC));
	if (is_safe) {
		ALLOC_INIT_ZVAL(result); /* on the heap: the fetch function gets it as its argument */
		if (run_explain(client, call, statement, result TSRMLS_CC) == SUCCESS) {
			plan = plan_of_rows(client, result TSRMLS_CC);
		} else {
			clear_error(client, call TSRMLS_CC);
		}
		zq_release_result(result TSRMLS_CC);
		FREE_ZVAL(result);
	}
	if (!plan && client->failure) {
		ZQ_LOG(ZQ_LOG_DEBUG, "%s", client->failure);
	}
	return plan;
}
