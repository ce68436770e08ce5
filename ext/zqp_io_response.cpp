/* The answer to a calling application: one response header that says which action ran and where its time went. */
#include "zqp_debug.h"
#include "zqp_io.h"
#include "zqp_json_text.h"
#include "zqp_nosql.h"
#include "zqp_webservice.h"

static int services_ms(TSRMLS_D)
{
	int sum = ZQG(unlisted_webservice_ms);
	for (zend_llist_element *at = ZQG(webservices) ? ZQG(webservices)->head : NULL; at; at = at->next) {
		sum += ((const webservice_element *)at->data)->metric;
	}
	return sum;
}

static void append_ms(smart_str *line, const char *item, int ms)
{
	zq_append_text(line, item);
	zq_append_long(line, ms);
}

/* Sums that are nothing are left out. */
static void append_ms_if_any(smart_str *line, const char *item, int ms)
{
	if (ms > 0) {
		append_ms(line, item, ms);
	}
}

/* Time in the queue lies before the action and is no part of "code". */
static void append_time(smart_str *line, int duration_ms TSRMLS_DC)
{
	int external = services_ms(TSRMLS_C);
	int redis = zq_nosql_total_ms(ZQG(nosql_redis));
	int memcached = zq_nosql_total_ms(ZQG(nosql_memcc));
	int mongo = zq_nosql_total_ms(ZQG(nosql_mongo));
	int code = duration_ms - ZQG(sum_db_metric) - external - redis - memcached - mongo;

	append_ms(line, "\"time\":{\"duration\":", duration_ms);
	append_ms(line, ",\"qu\":", ZQG(block_duration));
	append_ms(line, ",\"db\":", ZQG(sum_db_metric));
	append_ms_if_any(line, ",\"ex\":", external);
	append_ms_if_any(line, ",\"rds\":", redis);
	append_ms_if_any(line, ",\"mc\":", memcached);
	append_ms_if_any(line, ",\"mon\":", mongo);
	append_ms(line, ",\"code\":", code > 0 ? code : 0);
	zq_append_char(line, '}');
}

static void append_item(smart_str *line, const char *item, const char *value)
{
	zq_append_text(line, item);
	zq_append_text(line, value);
	zq_append_text(line, "\",");
}

/* A name can come from a URL. Callers find the value's end by its quote, and take single quotes for double ones. */
static void append_name(smart_str *line, const char *name)
{
	zq_append_text(line, "\"action\":\"");
	for (size_t plain; name && *name; name += plain + (name[plain] != '\0')) {
		plain = strcspn(name, "'\"\\");
		zq_append(line, name, plain);
		if (name[plain]) {
			zq_append_json_unit(line, (unsigned char)name[plain]);
		}
	}
	zq_append_text(line, "\",");
}

char *build_transaction_tx_data(int /*is_shutdown*/ TSRMLS_DC)
{
	smart_str line = {};
	int duration_ms = (int)((cycle_timer() - ZQG(rinit_tick)) / 1000);
	char *id = ZQG(vantor_id_secret) ? get_application_and_instance_id(ZQG(vantor_id_secret)) : NULL;

	append_item(&line, "X-Vantor-Tx-Data: {\"id\":\"", id);
	append_name(&line, ZQG(action_name));
	if (zq_trace_is_due(duration_ms TSRMLS_CC)) {
		zq_append_text(&line, "\"tr\":1,");
	}
	append_item(&line, "\"trId\":\"", zq_tracer_id(TSRMLS_C));
	if (ZQG(transaction_req_id)) {
		zq_append_text(&line, "\"r\":");
		zq_append_text(&line, ZQG(transaction_req_id));
		zq_append_char(&line, ',');
	}
	append_time(&line, duration_ms TSRMLS_CC);
	zq_append_char(&line, '}');
	if (id) {
		efree(id);
	}
	/* Action names can come from the request: a line end in one would start a header of the visitor's making. */
	char *text = zq_buffer_text(&line);
	zq_str_replace_ln(text);
	return text;
}

void add_sapi_header(char *header_line, int header_line_len TSRMLS_DC)
{
	sapi_header_struct header;
	header.header = header_line;
	header.header_len = (uint)header_line_len;
	if (sapi_module.header_handler) {
		/* the engine's headers hide the operation behind a macro of the same name and value */
		sapi_module.header_handler(&header, (sapi_header_op_enum)SAPI_HEADER_ADD, &SG(sapi_headers) TSRMLS_CC);
		return;
	}
	header.header = estrndup(header_line, (uint)header_line_len);
	zend_llist_add_element(&SG(sapi_headers).headers, &header);
}

void send_transaction_data(int is_shutdown TSRMLS_DC)
{
	if (ZQG(headers_sent) || !SG(sapi_started) || SG(request_info).no_headers || SG(headers_sent)) {
		return;
	}
	ZQG(headers_sent) = 1;
	/* The engine runs the header callback of a page without output after request end: nothing is left to tell then. */
	if (!ZQG(transaction_parent) || !ZQG(agent_enabled) || !ZQG(action_name)) {
		return;
	}
	char *line = build_transaction_tx_data(is_shutdown TSRMLS_CC);
	add_sapi_header(line, (int)strlen(line) TSRMLS_CC);
	efree(line);
}
