/* The metric packet: one per finished action, everything that the request's lists, tables and fields hold.
 *
 * The packet is built in one buffer and leaves in one send; nobody answers it. Each function below writes one group of
 * records, in the packet's order. Missing lists and tables count as empty, so that an action can be reported from any
 * state. */
#include <unistd.h>

#include <charconv>

#include "zqp_component.h"
#include "zqp_debug.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_json_text.h"
#include "zqp_json.h"
#include "zqp_nosql.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"

namespace {

/* Names and operations of stores and components are cut here: they are aggregated, and must stay few and short. */
constexpr size_t SHORT_TEXT_SIZE = 128;
constexpr int SERVICE_ERROR_WITHOUT_STATUS = 1000;
constexpr int MAX_PARAM_VALUE = 4096;
constexpr size_t MAX_DIGITS = 20; /* of any number of 64 bits, with its sign */

/* What the records written so far add up to (ms): the rest of the action is the application's own code. */
struct spent {
	long nosql;
	long services;
	long components;
};

void append_number_record(smart_str *p, int type, int number)
{
	zq_append_record(p, type, (const char *)&number, sizeof(number));
}

/* A record whose body is appended piece by piece: the result goes to zq_fill_length(). */
size_t open_record(smart_str *p, int type)
{
	size_t record = p->len;
	zq_append_header(p, type, 0);
	return record;
}

/* Appends the packet's last record that many times more. */
void repeat_record(smart_str *p, size_t record, unsigned times)
{
	size_t len = p->len - record;
	for (; times; times--) {
		zq_reserve(p, len);
		memcpy(p->c + p->len, p->c + record, len);
		p->len += len;
	}
}

zend_llist_element *list_head(const zend_llist *list)
{
	return list ? list->head : NULL;
}

Bucket *table_head(const HashTable *table)
{
	return table ? table->pListHead : NULL;
}

/* A table of the request's variables as the server gave them, whatever the script did to its own copy; null if none. */
HashTable *http_variables(int kind TSRMLS_DC)
{
	zval *variables = PG(http_globals)[kind];
	return variables && Z_TYPE_P(variables) == IS_ARRAY ? Z_ARRVAL_P(variables) : NULL;
}

__attribute__((format(printf, 3, 4))) void append_short_text(smart_str *p, int type, const char *format, ...)
{
	char text[SHORT_TEXT_SIZE];
	va_list args;
	va_start(args, format);
	int wanted = vsnprintf(text, sizeof(text), format, args);
	va_end(args);
	zq_append_record(p, type, text, wanted < (int)sizeof(text) ? (size_t)wanted : sizeof(text) - 1);
}

void append_identity(smart_str *p TSRMLS_DC)
{
	zq_append_text_record(p, ZQ_RE_APP_NAME, ZQG(app_name));
	zq_append_text_record(p, ZQ_RE_LICENSE, ZQG(license));
	if (ZQG(action_name)) {
		zq_append_text_record(p, ZQ_RE_ACTION_NAME, ZQG(action_name));
	}
	if (!g_cli && zq_request_uri(TSRMLS_C)) {
		zq_append_text_record(p, ZQ_RE_URI, zq_request_uri(TSRMLS_C));
	}
}

void append_times(smart_str *p, int duration_ms TSRMLS_DC)
{
	uint64 user = 0, system = 0;
	long resident_pages;
	zq_read_stat(zq_thread_id(), &user, &system, &resident_pages);
	uint64 cpu = user + system;

	/* The first is user and system time since the action began, as rinit_cpu was; the second is system time as such. */
	append_number_record(p, ZQ_RE_CPU_USED, cpu > ZQG(rinit_cpu) ? (int)(cpu - ZQG(rinit_cpu)) : 0);
	append_number_record(p, ZQ_RE_CPU_SYSTEM, (int)system);
	append_number_record(p, ZQ_RE_BLOCK_MS, ZQG(block_duration));
	append_number_record(p, ZQ_RE_DURATION_MS, duration_ms);
	append_number_record(p, ZQ_RE_DB_MS, ZQG(sum_db_metric));
}

/* "length:bytes". */
void append_sql_item(smart_str *p, const char *text, size_t len)
{
	zq_reserve(p, MAX_DIGITS + 1 + len);
	char *at = p->c + p->len;
	at = std::to_chars(at, at + MAX_DIGITS, len).ptr;
	*at++ = ':';
	memcpy(at, text, len);
	p->len = (size_t)(at + len - p->c);
}

void append_sql_item(smart_str *p, const char *text)
{
	append_sql_item(p, text ? text : "", text ? strlen(text) : 0);
}

void append_statement(smart_str *p, const sql_element *sql, int keep_details)
{
	char metric[MAX_DIGITS];
	size_t metric_len = (size_t)(std::to_chars(metric, metric + sizeof(metric), sql->metric).ptr - metric);

	size_t record = open_record(p, ZQ_RE_SQL);
	append_sql_item(p, metric, metric_len);
	append_sql_item(p, sql->db);
	append_sql_item(p, sql->statement);
	if (keep_details && sql->stack) {
		append_sql_item(p, sql->stack);
	}
	if (keep_details && sql->explain) {
		append_sql_item(p, sql->explain);
	}
	zq_fill_length(p, record);
	repeat_record(p, record, sql->repeats);
}

/* The statement goes as it was run, in every mode: the daemon takes names and groups from it. */
void append_statements(smart_str *p TSRMLS_DC)
{
	int keep_details = ZQG(action_tracer_record_sql) != 0;
	for (zend_llist_element *at = list_head(ZQG(sqls)); at; at = at->next) {
		append_statement(p, (const sql_element *)at->data, keep_details);
	}
}

/* A store's totals per operation, then their sum. `prefix` is the store's name and its line ends: where keys begin with
 * the collection there is one, elsewhere an empty collection line follows. Returns the sum in ms. */
long append_store(smart_str *p, HashTable *table, const char *store, const char *prefix)
{
	for (Bucket *row = table_head(table); row; row = row->pListNext) {
		const nosql_hash_element *total = (const nosql_hash_element *)row->pDataPtr;
		append_short_text(
			p, ZQ_RE_SERVICE, "%s%s\n%d", prefix, row->nKeyLength ? row->arKey : "", (int)(total->tsc / 1000));
	}
	int sum = zq_nosql_total_ms(table);
	if (sum >= 1) {
		append_short_text(p, ZQ_RE_NOSQL_TOTAL, "%d\n%s", sum, store);
	}
	return sum;
}

void append_stores(smart_str *p, spent *sum TSRMLS_DC)
{
	sum->nosql += append_store(p, ZQG(nosql_memcc), "Memcached", "Memcached\n\n");
	sum->nosql += append_store(p, ZQG(nosql_mongo), "MongoDB", "MongoDB\n");
	sum->nosql += append_store(p, ZQG(nosql_redis), "Redis", "Redis\n\n");
}

void append_answer_item(smart_str *p, const char *answer, const char *quoted_name)
{
	char *value = NULL;
	int len = 0;
	zq_append_char(p, '\n');
	if (get_transcation_data_item(answer, quoted_name, &value, &len)) {
		zq_append_unescaped(p, value, (size_t)len);
	}
}

void append_services(smart_str *p, spent *sum TSRMLS_DC)
{
	for (zend_llist_element *at = list_head(ZQG(webservices)); at; at = at->next) {
		const webservice_element *service = (const webservice_element *)at->data;
		size_t record = open_record(p, ZQ_RE_SERVICE);
		zq_append_text(p, "http\n");
		zq_append_text(p, service->name);
		zq_append_text(p, "\n\n");
		zq_append_long(p, service->metric);
		if (service->transaction_data) {
			append_answer_item(p, service->transaction_data, "\"id\"");
			append_answer_item(p, service->transaction_data, "\"action\"");
		}
		zq_fill_length(p, record);
		sum->services += service->metric;
	}
	sum->services += ZQG(unlisted_webservice_ms);
	if (sum->services >= 1) {
		append_number_record(p, ZQ_RE_EXTERNAL_MS, (int)sum->services);
	}
}

void append_components(smart_str *p, spent *sum TSRMLS_DC)
{
	for (Bucket *row = table_head(ZQG(components_hash)); row; row = row->pListNext) {
		const component_hash_element *component = (const component_hash_element *)row->pDataPtr;
		int own = component->metric - component->exclusive;
		append_short_text(p, ZQ_RE_COMPONENT, "%d\n%d\n%s", component->metric, own, row->nKeyLength ? row->arKey : "");
		sum->components += own;
	}
}

void append_remainder(smart_str *p, int duration_ms, const spent *sum TSRMLS_DC)
{
	long rest = duration_ms - ZQG(sum_db_metric) - sum->nosql - sum->services - sum->components;
	if (rest > 0) {
		append_short_text(p, ZQ_RE_COMPONENT, "%ld\n%ld\n%s", rest, rest, "PHP/NULL/remainder code");
	}
}

/* A line end and the text as the body of a JSON string: it cannot break the lines of the record. */
void append_escaped_line(smart_str *p, const char *text)
{
	zq_append_char(p, '\n');
	json_escape_string(p, text, text ? strlen(text) : 0, 0);
}

void append_error(smart_str *p TSRMLS_DC)
{
	const error_element *error = ZQG(error);
	if (!error) {
		return;
	}
	size_t record = open_record(p, ZQ_RE_ERROR);
	zq_append_text(p, "1\n");
	zq_append_long(p, SG(sapi_headers).http_response_code);
	append_escaped_line(p, error->cls);
	append_escaped_line(p, error->msg);
	if (error->stack) {
		zq_append_char(p, '\n');
		zq_append_text(p, error->stack);
	}
	zq_fill_length(p, record);
}

void append_service_errors(smart_str *p TSRMLS_DC)
{
	for (zend_llist_element *at = list_head(ZQG(webservices)); at; at = at->next) {
		const webservice_element *service = (const webservice_element *)at->data;
		if (!service->stack) {
			continue;
		}
		size_t record = open_record(p, ZQ_RE_SERVICE_ERROR);
		zq_append_text(p, "External/");
		zq_append_text(p, service->name);
		zq_append_char(p, '\n');
		zq_append_long(p, service->status >= 400 ? service->status : SERVICE_ERROR_WITHOUT_STATUS);
		zq_append_char(p, '\n');
		if (service->status > 0) {
			zq_append_long(p, service->status);
		}
		append_escaped_line(p, service->error_msg);
		zq_append_char(p, '\n');
		zq_append_text(p, service->url ? strchr(service->url, '?') : NULL);
		zq_append_char(p, '\n');
		zq_append_text(p, service->stack);
		zq_fill_length(p, record);
	}
}

void append_trace(smart_str *p, int duration_ms TSRMLS_DC)
{
	if (!ZQG(tracer) || !zq_trace_is_due(duration_ms TSRMLS_CC)) {
		return;
	}
	smart_str json = {};
	zend_llist_sort(ZQG(tracer), tracer_element_cmp TSRMLS_CC);
	tracer_list_to_json(duration_ms, ZQG(tracer), &json TSRMLS_CC);
	if (json.len < ZQ_MAX_BODY) {
		zq_append_record(p, ZQ_RE_TRACE, json.c, json.len);
		if (ZQG(transaction_id)) {
			zq_append_text_record(p, ZQ_RE_TRANSACTION_ID, ZQG(transaction_id));
		}
		zq_append_text_record(p, ZQ_RE_TRACER_ID, zq_tracer_id(TSRMLS_C));
	}
	zq_buffer_free(&json);
}

/* "label: value" of a server variable that is a non-empty string. */
void append_server_variable(smart_str *p, const char *label, const char *key, uint key_size TSRMLS_DC)
{
	zval *value = FIND_HASH_ZVALUE(http_variables(TRACK_VARS_SERVER TSRMLS_CC), key, key_size);
	if (!value || Z_TYPE_P(value) != IS_STRING || Z_STRLEN_P(value) == 0) {
		return;
	}
	size_t record = open_record(p, ZQ_RE_REQUEST);
	zq_append_text(p, label);
	zq_append(p, Z_STRVAL_P(value), (size_t)Z_STRLEN_P(value));
	zq_fill_length(p, record);
}

void append_web_request(smart_str *p TSRMLS_DC)
{
	if (g_cli) {
		return;
	}
	append_server_variable(p, "referer: ", "HTTP_REFERER", sizeof("HTTP_REFERER") TSRMLS_CC);
	append_server_variable(p, "user-agent: ", "HTTP_USER_AGENT", sizeof("HTTP_USER_AGENT") TSRMLS_CC);
	append_short_text(p, ZQ_RE_REQUEST, "threadName: pid-%d", (int)getpid());
	append_short_text(p, ZQ_RE_REQUEST, "httpStatus: %d", SG(sapi_headers).http_response_code);
	if (ZQG(capture_params)) {
		add_http_params(p, http_variables(TRACK_VARS_GET TSRMLS_CC) TSRMLS_CC);
		add_http_params(p, http_variables(TRACK_VARS_POST TSRMLS_CC) TSRMLS_CC);
	}
}

void append_packet(smart_str *p, int duration_ms TSRMLS_DC)
{
	spent sum = {0, 0, 0};
	zq_append_header(p, ZQ_PK_METRIC, 0);
	append_identity(p TSRMLS_CC);
	append_times(p, duration_ms TSRMLS_CC);
	append_statements(p TSRMLS_CC);
	append_stores(p, &sum TSRMLS_CC);
	append_services(p, &sum TSRMLS_CC);
	append_components(p, &sum TSRMLS_CC);
	append_remainder(p, duration_ms, &sum TSRMLS_CC);
	append_error(p TSRMLS_CC);
	append_service_errors(p TSRMLS_CC);
	append_trace(p, duration_ms TSRMLS_CC);
	append_web_request(p TSRMLS_CC);
	zq_append_details(p TSRMLS_CC);
	zq_append_radar(p TSRMLS_CC);
	zq_fill_packet_header(p, ZQ_PK_METRIC);
}

void transmit(const smart_str *packet TSRMLS_DC)
{
	size_t body = packet->len - 4;
	int sock = zq_daemon_socket(1 TSRMLS_CC);
	ZQ_LOG(ZQ_LOG_DEBUG, "sending metric data to daemon, fd=%d", sock);
	if (body >= ZQ_MAX_BODY) {
		ZQ_LOG(ZQ_LOG_WARNING, "metric data too large: %d bytes", (int)body);
		return;
	}
	if (sock != -1 && zq_daemon_send(sock, packet->c, packet->len) == (ssize_t)packet->len) {
		ZQ_LOG(ZQ_LOG_DEBUG, "send metric data ok");
		return;
	}
	ZQ_LOG(ZQ_LOG_CRITICAL, "send metric data fail");
	close_daemon(sock TSRMLS_CC);
}

bool is_ignored(const cArray *ignored, const char *name)
{
	for (int i = 0; ignored && i < ignored->length; i++) {
		if (strcmp(ignored->items[i], name) == 0) {
			return true;
		}
	}
	return false;
}

} // namespace

void send_metric(int duration_ms TSRMLS_DC)
{
	ZQ_LOG(
		ZQ_LOG_DEBUG, "send_metric action=%s, metric=%d", ZQG(action_name) ? ZQG(action_name) : "(null)", duration_ms);
	smart_str packet = {};
	append_packet(&packet, duration_ms TSRMLS_CC);

	transmit(&packet TSRMLS_CC);
	zq_buffer_free(&packet);
}

void add_http_params(smart_str *p, HashTable *arr_hash TSRMLS_DC)
{
	cArray *ignored = get_c_array(ZQG(ignored_params), ',');
	for (Bucket *row = table_head(arr_hash); row; row = row->pListNext) {
		const zval *value = *(zval **)row->pData;
		int is_text = value && Z_TYPE_P(value) == IS_STRING;
		if (!row->nKeyLength || !value || (!is_text && Z_TYPE_P(value) != IS_LONG) || is_ignored(ignored, row->arKey)) {
			continue;
		}
		size_t record = open_record(p, ZQ_RE_PARAM);
		zq_append_text(p, row->arKey);
		zq_append_text(p, ": ");
		if (is_text) {
			zq_append(p, Z_STRVAL_P(value),
				(size_t)(Z_STRLEN_P(value) < MAX_PARAM_VALUE ? Z_STRLEN_P(value) : MAX_PARAM_VALUE));
		} else {
			zq_append_long(p, Z_LVAL_P(value));
		}
		zq_fill_length(p, record);
	}
	if (ignored) {
		free_c_array(ignored);
	}
}

int get_transcation_data_item(const char *data, const char *item_name, char **tyid, int *tyid_len)
{
	const char *name = data && item_name ? strstr(data, item_name) : NULL;
	if (!name) {
		return 0;
	}
	/* One character between name and value, the ":", is skipped; so is an unquoted value. */
	const char *after = name + strlen(item_name);
	const char *open = *after ? strchr(after + 1, '"') : NULL;
	if (!open) {
		return 0;
	}
	*tyid = (char *)open + 1;
	*tyid_len = (int)strcspn(open + 1, "\"");
	return 1;
}

int zq_trace_is_due(int duration_ms TSRMLS_DC)
{
	return ZQG(action_tracer_enabled) && (ZQG(child_has_tracer) || duration_ms >= ZQG(action_tracer_action_threshold));
}

const char *zq_tracer_id(TSRMLS_D)
{
	if (!ZQG(tracer_id)) {
		ZQG(tracer_id) = get_new_GUID();
	}
	return ZQG(tracer_id);
}
