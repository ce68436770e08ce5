/* The two tables of watched user functions, the names in them from the start of a request, and the callbacks that are too
 * small for a file of their own. */
#include "zqp_debug.h"
#include "zqp_exception.h"
#include "zqp_name_table.h"
#include "zqp_rum.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_framework.h"
#include "zqp_wrapper_nosql.h"

namespace {

struct zq_seed_row {
	const char *name;
	uint size; /* counts the NUL */
	zq_wrapper_callback callback;
	template <size_t N>
	consteval zq_seed_row(const char (&text)[N], zq_wrapper_callback wrapper) : name(text), size(N), callback(wrapper) {}
};

/* What reveals a library; the callback then adds the names that matter for it. */
constexpr zq_seed_row seed_rows[] = {
	{"Thrift\\Protocol\\TBinaryProtocol::writeMessageBegin", wrapper_thrift_protocol_writemessagebegin},
	{"Thrift\\Transport\\TSocket::__construct", wrapper_thrift_transport_construct},
	{"Thrift\\Transport\\THttpClient::__construct", wrapper_thrift_transport_construct},
	{"Snoopy::_httprequest", wrapper_snoopy_httprequest},
	{"soap_transport_http::send", wrapper_nusoap_send},
	{"Predis\\Autoloader::register", wrapper_predis_autoloader_register},
	{"Predis\\Client::__construct", wrapper_predis_autoloader_register},
	{"WebsocketClient::connect", wrapper_websocket_connect},
};

void admit(const char *name TSRMLS_DC)
{
	const char *colons = strstr(name, "::");
	uint64 key = colons ? zq_watch_key(name, (int)(colons - name), colons + 2) : zq_watch_key(NULL, 0, name);
	unsigned bit = zq_watch_bit(key);
	ZQG(watch_filter)[bit >> 6] |= (uint64)1 << (bit & 63);
}

} // namespace

void zq_watch_before(const char *name, size_t name_size, zq_wrapper_callback callback TSRMLS_DC)
{
	if (ZQG(wrapper_function_hash)) {
		zend_hash_update(ZQG(wrapper_function_hash), name, (uint)name_size, &callback, sizeof callback, NULL);
		admit(name TSRMLS_CC);
	}
}

void zq_watch_after(const char *name, size_t name_size, zq_performance_callback callback TSRMLS_DC)
{
	if (ZQG(performance_function_hash)) {
		zend_hash_update(ZQG(performance_function_hash), name, (uint)name_size, &callback, sizeof callback, NULL);
		admit(name TSRMLS_CC);
	}
}

zq_wrapper_callback zq_find_before(const char *name, size_t name_size TSRMLS_DC)
{
	return (zq_wrapper_callback)FIND_HASH_PVALUE(ZQG(wrapper_function_hash), name, (uint)name_size);
}

zq_performance_callback zq_find_after(const char *name, size_t name_size TSRMLS_DC)
{
	HashTable *table = ZQG(performance_function_hash);
	if (!table || zend_hash_num_elements(table) == 0) {
		return NULL;
	}
	return (zq_performance_callback)FIND_HASH_PVALUE(table, name, (uint)name_size);
}

void zq_init_funtion_hash(TSRMLS_D)
{
	memset(ZQG(watch_filter), 0, sizeof ZQG(watch_filter));
	zq_watch_frameworks(TSRMLS_C);
	for (const zq_seed_row &row : seed_rows) {
		zq_watch_before(row.name, row.size, row.callback TSRMLS_CC);
	}
}

int zq_identity_is_set(TSRMLS_D)
{
	return ZQG(transaction_tracer_enabled) && ZQG(vantor_id_secret) && *ZQG(vantor_id_secret) &&
	       ZQG(transaction_id) && *ZQG(transaction_id);
}

int wrapper_add_components(zend_execute_data *, char * TSRMLS_DC)
{
	return 1;
}

int wrapper_should_ignore_external(zend_execute_data *, char * TSRMLS_DC)
{
	ZQG(webservice_should_ignored) = 1;
	return 0;
}

void wrapper_header(zq_stack_data *stack_data TSRMLS_DC)
{
	const char *line = get_argument_char(stack_data->execute_data, 0);
	if (!line) {
		return;
	}
	int status = get_header_status(line);
	if (status > 399) {
		zq_http_error(status, line TSRMLS_CC);
	}
	/* The script is for HTML pages whose length may still grow. */
	if (status ? status != 200 : get_header_content(line) == 0) {
		ZQG(rum_enabled) = 0;
	}
}

void wrapper_set_error_handler(zq_stack_data *stack_data TSRMLS_DC)
{
	char *handler = get_argument_callback(stack_data->execute_data, 0 TSRMLS_CC);
	if (handler) {
		zq_watch_before(handler, strlen(handler) + 1, wrapper_user_error_handler TSRMLS_CC);
		efree(handler);
	}
}

void wrapper_ob_flush(zq_stack_data * TSRMLS_DC)
{
	injectOutputBuffer(TSRMLS_C);
}
