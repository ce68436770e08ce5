/* Whose database a PDO object speaks to: by its data source when it is made, and by the driver of the very object
 * later. */
#ifndef ZQP_WRAPPER_PDO_H
#define ZQP_WRAPPER_PDO_H

#include "zqp_wrapper.h"

#if __has_include("ext/pdo/php_pdo_driver.h")
#define ZQ_KNOWS_PDO 1
extern "C" {
#include "ext/pdo/php_pdo_driver.h"
}
#endif

/* What the object of a call is. */
typedef enum { ZQ_NOT_PDO = 0, ZQ_PDO_CONNECTION, ZQ_PDO_STATEMENT } zq_pdo_object;

/* PDO::__construct: the data source names the vendor of the statements that follow. Always 0. */
int performance_pdo_construct(zq_stack_data *call, uint64 begin_us, uint64 end_us TSRMLS_DC);
/* Vendor of a data source name; null when it is none that is known. Static text. */
const char *zq_pdo_vendor(const char *dsn);

/* True for a call to a method of PDO's own, not to one of another module that has its class names. */
bool zq_is_pdo_method(const zq_stack_data *call);
/* Vendor of a driver, or the driver's own name when that is not known. Borrowed from the driver's module. */
const char *zq_pdo_driver_vendor(const void *driver);
/* The driver behind the object of such a call, by the thread's store of objects; null when there is none. Borrowed from
 * the driver's module. */
static inline const void *zq_pdo_driver(zq_pdo_object kind, const zval *object, const zend_objects_store *objects)
{
#ifdef ZQ_KNOWS_PDO
	if (object) {
		const void *data = objects->object_buckets[Z_OBJ_HANDLE_P(object)].bucket.obj.object;
		if (EXPECTED(kind == ZQ_PDO_CONNECTION)) {
			return ((const pdo_dbh_t *)data)->driver;
		}
		const pdo_dbh_t *connection = ((const pdo_stmt_t *)data)->dbh;
		return connection ? connection->driver : NULL;
	}
#endif
	return NULL;
}

#endif
