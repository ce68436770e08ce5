/* One transaction across applications, seen from the caller: the identity that outgoing calls carry, and the callee's
 * data taken from the answers. Whatever a script passed or can look at later is as it would be without the agent. */
#ifndef ZQP_WRAPPER_HEADERS_H
#define ZQP_WRAPPER_HEADERS_H

#include "zqp_wrapper.h"

/* The callee's answer header up to its value, and its length. */
#define ZQ_ANSWER_HEADER "X-Vantor-Tx-Data: "
enum { ZQ_ANSWER_HEADER_LEN = sizeof(ZQ_ANSWER_HEADER) - 1, ZQ_SHORTEST_ANSWER = 21 };

/* ---- zqp_wrapper_headers.cpp: the identity ---- */
/* Appends "<id>;c=1;x=<transaction id>", control characters as spaces. To be called while zq_identity_is_set(). */
void zq_append_identity(smart_str *dest TSRMLS_DC);
/* "X-Vantor-Id: " and the identity, without a line end; a new heap value with one reference. Unless `span` is 0, the
 * trace context of that span follows as a second line. */
zval *zq_identity_header(uint64 span TSRMLS_DC);
/* True when `header` was made by zq_identity_header(), for this transaction or an earlier one. */
bool zq_is_identity_header(const zval *header TSRMLS_DC);
/* The span whose trace context follows in it; 0 without one, and for null. */
uint64 zq_span_of_header(const zval *header TSRMLS_DC);

/* ---- zqp_wrapper_curl.cpp ---- */
/* Keeps the callee's data when the response header line is the one that carries it; any other line is ignored. */
void curl_header_handler(const char *header, size_t len TSRMLS_DC);
/* Before a script's own header callback: its line goes through curl_header_handler() as well. Asks for no component. */
int wrapper_curl_header_handler(zend_execute_data *execute_data, char *func TSRMLS_DC);
/* Before curl_setopt: watches a header callback that is given by name, outside of client libraries. */
void wrapper_curl_setopt(zq_stack_data *call TSRMLS_DC);
/* Before curl_setopt_array: notes that the script sets a header callback or file; the names in it are not watched. */
void wrapper_curl_setopt_array(zq_stack_data *call TSRMLS_DC);
/* Before curl_multi_add_handle: takes our header callback off a handle that has none of the script's, which then
 * carries the trace context of the action itself. */
void wrapper_curl_multi_add_handle(zq_stack_data *call TSRMLS_DC);
/* Before curl_copy_handle: original and copy carry no trace context from then on. */
void wrapper_curl_copy_handle(zq_stack_data *call TSRMLS_DC);
/* After it: notes that the two share what PHP frees for them. 0. */
int performance_curl_copy_handle(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* Forgets what a callee has answered: it belongs to one transfer. */
void zq_drop_curl_answer(TSRMLS_D);
/* Before curl_exec: that, for data that came with an answer to another call; and the transfer's trace context. */
void wrapper_curl_exec(zq_stack_data *call TSRMLS_DC);
/* After curl_setopt: adds the identity to a header list that the script has set. 0. */
int performance_curl_setopt(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* After curl_init and curl_reset: gives the fresh handle the identity and our header callback. 0. */
int performance_curl_init(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_curl_reset(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* ---- zqp_wrapper_curl_context.cpp; without trace context all but the first do nothing ---- */
/* curl_setopt(handle, option, value), unseen by the script; gives `value` away. */
void zq_set_curl_option(zval *handle, long option, zval *value TSRMLS_DC);
/* The handle has this list of headers from now on, our identity in it. */
void zq_keep_curl_list(const zval *handle, const zval *headers TSRMLS_DC);
/* The list goes back to what it is without trace context, and stays so. */
void zq_leave_curl_list(zval *handle TSRMLS_DC);
/* The script wanted to replace the list that was left, and has not. */
void zq_curl_list_is_as_before(const zval *handle TSRMLS_DC);
void zq_forget_curl_list(const zval *handle TSRMLS_DC);
/* The script gives the handle another URL, which may take what the last one did not. */
void zq_curl_url_is_new(const zval *handle TSRMLS_DC);
/* Before a transfer that is recorded on its own, or else belongs to the action's own span. */
void zq_send_traceparent(zval *handle, bool is_recorded TSRMLS_DC);
/* The span whose trace context the handle carries; 0: it carries none. */
uint64 zq_curl_span(const zval *handle TSRMLS_DC);

/* ---- zqp_wrapper_stream.cpp: stream contexts ---- */
/* True when the text names something that is read over HTTP. */
bool zq_is_http_url(const char *url);
/* Before the call: its context carries the identity until zq_take_back_header(). */
void wrapper_file_get_contents(zq_stack_data *call TSRMLS_DC);
void wrapper_fopen(zq_stack_data *call TSRMLS_DC);
/* After the call: the context is again what the script made it. The span that the call was for the callee, or 0. */
uint64 zq_take_back_header(zq_stack_data *call TSRMLS_DC);
/* The callee's data among the response headers of the call; borrowed from the script's $http_response_header, null
 * when there is none or when those headers are an earlier call's. */
const char *zq_stream_answer(const zq_stack_data *call TSRMLS_DC);
/* After the constructor: the client's requests carry the identity, and it keeps response headers. */
void zq_identify_soap_client(zval *client TSRMLS_DC);
/* Before SoapClient::__doRequest: a client that carries the identity carries the request's trace context as well, until
 * zq_end_soap_request(). */
void wrapper_soap_request(zq_stack_data *call TSRMLS_DC);
/* After it: the span that the request was for the callee, or 0. */
uint64 zq_end_soap_request(const zval *client TSRMLS_DC);

#endif
