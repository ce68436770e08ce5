/* The names that are watched from the start of a request, and the handlers of internal functions that are too small for
 * a file of their own. */
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
	consteval zq_seed_row(const char (&text)[N], zq_wrapper_callback wrapper) : name(text), size(N), callback(wrapper)
	{
	}
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

} // namespace

void zq_init_funtion_hash(TSRMLS_D)
{
	memset(ZQG(watch_filter), 0, sizeof(ZQG(watch_filter)));
	zq_watch_frameworks(TSRMLS_C);
	for (const zq_seed_row &row : seed_rows) {
		zq_watch_before(row.name, row.size, row.callback TSRMLS_CC);
	}
}

void wrapper_header(zq_stack_data *call TSRMLS_DC)
{
	const char *line = get_argument_char(call->execute_data, 0);
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

void wrapper_set_error_handler(zq_stack_data *call TSRMLS_DC)
{
	zq_watch_callback(call->execute_data, 0, wrapper_user_error_handler TSRMLS_CC);
}

void wrapper_ob_flush(zq_stack_data *TSRMLS_DC)
{
	injectOutputBuffer(TSRMLS_C);
}
