/* Calls of cache and document store clients: which operation each one is. The recorders return 0: a slow call still
 * gets its default trace element. A call whose operation does not count, or cannot be read, leaves nothing. */
#ifndef ZQP_WRAPPER_NOSQL_H
#define ZQP_WRAPPER_NOSQL_H

#include "zqp_wrapper.h"

/* Methods of the client extensions. */
int performance_memcached(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_redis(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
int performance_mongo_collection(
	zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC); /* under the collection's text */
int performance_mongo_script(
	zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC); /* under the database's text */
int performance_mongo_manager(
	zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC); /* under its first argument */

/* Predis names the commands that it is given; whichever of its entry points runs first has them watched. */
int wrapper_predis_autoloader_register(zend_execute_data *execute_data, char *func TSRMLS_DC);
int performance_predis_client_call(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* Yii 2 passes on the command as the application spelt it; it is kept so. */
int performance_yiiredisConnection_executeCommand(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);

#endif
