/* Recording outgoing calls: the recorder, and for each client library the routine that finds URL, outcome and answer.
 */
#ifndef ZQP_WRAPPER_EXTERNAL_H
#define ZQP_WRAPPER_EXTERNAL_H

#include "zqp_wrapper.h"

/* Records one outgoing call of `call` with its times (us). `url` needs "://", else nothing happens;
 * `transaction_data` is the callee's answer data, `status` an HTTP status or 0, `error_msg` null or a text: all are
 * copied. A failed call keeps the code stack, one slower than the trace threshold enters the trace. Once the list holds
 * zq_most_recorded_bytes() of text only the total time of the calls grows. 1 when the call was recorded, else 0. */
int EXTERNAL_SERVICE(zq_stack_data *call, const char *url, const char *transaction_data, int status,
	const char *error_msg, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* After a client's call, as zq_performance_callback: each charges the time to the innermost component. 1 when the call
 * was recorded, else 0. */
int performance_curl_exec(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_curl_multi_exec(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_file_get_contents(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_fopen(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_soapclient_construct(
	zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC); /* records nothing; 0 */
int performance_soapclient(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_httprequest_send(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* ---- zqp_wrapper_library.cpp: HTTP clients written in PHP ---- */
/* Before a call the wrappers silence what the library uses inside and have the recorder watched; they ask for no
 * component. The recorders are as above. */
int wrapper_snoopy_httprequest(zend_execute_data *execute_data, char *func TSRMLS_DC);
int performance_snoopy_httprequest(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int wrapper_nusoap_send(zend_execute_data *execute_data, char *func TSRMLS_DC); /* and the identity as a header */
int performance_nusoap_send(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_drupal_http_request(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_wp_http_request(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_zend_http_client_request(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* ---- zqp_wrapper_thrift.cpp ---- */
/* What the protocol classes tell of a client's call: its host, the method that it belongs to, the place for the
 * identity, the callee's data among what is skipped. None asks for a component or takes a trace element's place: all 0.
 */
int wrapper_thrift_transport_construct(zend_execute_data *execute_data, char *func TSRMLS_DC);
int wrapper_thrift_protocol_writemessagebegin(zend_execute_data *execute_data, char *func TSRMLS_DC);
int wrapper_thrift_protocol_writefieldstop(zend_execute_data *execute_data, char *func TSRMLS_DC);
int wrapper_thrift_protocol_skip(zend_execute_data *execute_data, char *func TSRMLS_DC);
int performance_thrift_protocol_readstring(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* After the client's own method, as the recorders above. */
int performance_thrift_custom_function(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

/* ---- zqp_wrapper_websocket.cpp ---- */
/* While a client connects, its handshake may carry the identity and the answer to it the callee's data. 0, except for a
 * message that was recorded. */
int wrapper_websocket_connect(zend_execute_data *execute_data, char *func TSRMLS_DC);
int performance_websocket_connect(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_websocket_senddata(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* Around the handshake's fwrite: the identity goes out, and the script gets the length of what it wrote itself. */
void wrapper_fwrite(zq_stack_data *call TSRMLS_DC);
int performance_fwrite(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC); /* 0 */
int performance_fread(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);  /* keeps the answer's data; 0 */

#endif
