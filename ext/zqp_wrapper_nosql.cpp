/* Which operation of which store a client's call is. */
#include "zqp_wrapper_nosql.h"

#include "zqp_name_table.h"
#include "zqp_nosql.h"

namespace {

/* Adds the call under what `to_text` says of its object. The method is named with its class: an override in the
 * application's own class is code that must not run a second time. */
void add_of_object(zq_stack_data *call, const char *to_text, const char *operation, uint64 elapsed_us TSRMLS_DC)
{
	if (!call->object || Z_TYPE_P(call->object) != IS_OBJECT) {
		return;
	}
	zval text;
	if (zq_call_named(call->object, to_text, &text, 0, NULL TSRMLS_CC) == SUCCESS && Z_TYPE(text) == IS_STRING) {
		zq_nosql_add(ZQG(nosql_mongo), Z_STRVAL(text), operation, ZQ_OPERATION_UPPER, elapsed_us TSRMLS_CC);
	}
	zq_release_result(&text TSRMLS_CC);
}

} // namespace

int performance_memcached(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	if (zq_nosql_counts(call->func, call->func_hash_code)) {
		zq_nosql_add(ZQG(nosql_memcc), NULL, call->func, ZQ_OPERATION_UPPER, end_us - begin_us TSRMLS_CC);
	}
	return 0;
}

int performance_redis(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	if (zq_nosql_counts(call->func, 0)) {
		zq_nosql_add(ZQG(nosql_redis), NULL, call->func, ZQ_OPERATION_UPPER, end_us - begin_us TSRMLS_CC);
	}
	return 0;
}

int performance_mongo_collection(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	if (zq_nosql_counts(call->func, call->func_hash_code)) {
		add_of_object(call, "MongoCollection::__toString", call->func, end_us - begin_us TSRMLS_CC);
	}
	return 0;
}

int performance_mongo_script(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	add_of_object(call, "MongoDB::__toString", "SCRIPT", end_us - begin_us TSRMLS_CC);
	return 0;
}

int performance_mongo_manager(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	const char *place = get_argument_char(call->execute_data, 0);
	if (place) {
		zq_nosql_add(ZQG(nosql_mongo), place, call->func, ZQ_OPERATION_AS_GIVEN, end_us - begin_us TSRMLS_CC);
	}
	return 0;
}

int wrapper_predis_autoloader_register(zend_execute_data *, char *TSRMLS_DC)
{
	static constexpr zq_name entry_points[] = {
		"Predis\\Client::__call", "Predis\\Pipeline\\Pipeline::__call", "Predis\\Transaction\\MultiExec::__call"};
	for (const zq_name &name : entry_points) {
		zq_watch_after(name.text, (size_t)name.length + 1, performance_predis_client_call TSRMLS_CC);
	}
	return 0;
}

int performance_predis_client_call(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	const char *command = get_argument_char(call->execute_data, 0);
	if (command && *command && zq_nosql_counts(command, 0)) {
		zq_nosql_add(ZQG(nosql_redis), NULL, command, ZQ_OPERATION_UPPER, end_us - begin_us TSRMLS_CC);
	}
	return 0;
}

int performance_yiiredisConnection_executeCommand(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC)
{
	const char *command = get_argument_char(call->execute_data, 0);
	if (command && *command) {
		zq_nosql_add(ZQG(nosql_redis), NULL, command, ZQ_OPERATION_AS_GIVEN, end_us - begin_us TSRMLS_CC);
	}
	return 0;
}
