/* Whose database a PDO object speaks to: by its data source when it is made, and by the driver of the very object
 * later. */
#include "zqp_wrapper_database.h"

#include "zqp_details.h"

#if __has_include("ext/pdo/php_pdo_driver.h")
#define ZQ_KNOWS_PDO 1
extern "C" {
#include "ext/pdo/php_pdo_driver.h"
}
#endif

namespace {

struct vendor_row {
	char first;
	const char *driver;
	const char *vendor;
};

constexpr vendor_row vendors[] = {
	{'i', "ibm:", "DB2"},
	{'m', "mysql:", "MySQL"},
	{'m', "mssql:", "SQLServer"},
	{'o', "oci:", "Oracle"},
	{'p', "pgsql:", "PostgreSQL"},
	{'s', "sqlite:", "SQLite"},
	{'s', "sqlsrv:", "SQLServer"},
	{'s', "sybase:", "Sybase"},
};

} // namespace

const char *zq_pdo_vendor(const char *dsn)
{
	/* The first row whose letter begins the name and whose driver stands anywhere in it, as in "uri:" names. */
	for (const vendor_row &row : vendors) {
		if (dsn && *dsn == row.first && zq_strcasestr(dsn, row.driver)) {
			return row.vendor;
		}
	}
	return NULL;
}

int performance_pdo_construct(zq_stack_data *call, uint64, uint64 TSRMLS_DC)
{
	const char *vendor = zq_pdo_vendor(get_argument_char(call->execute_data, 0));
	if (vendor && !EG(exception)) { /* a connection that was refused runs no statements */
		ZQG(pdo_db) = vendor;
	}
	return 0;
}

#ifdef ZQ_KNOWS_PDO

/* What the engine's store has for the object of a call to a method of PDO's own; null for anything else. */
template <typename T>
static const T *pdo_data(const zq_stack_data *call TSRMLS_DC)
{
	const zend_function *function = call->execute_data->function_state.function;
	const zend_module_entry *module =
		function->type == ZEND_INTERNAL_FUNCTION ? function->internal_function.module : NULL;
	zq_details *details = ZQG(details);
	if (UNEXPECTED(module != details->pdo)) {
		if (!module || strcmp(module->name, "PDO") != 0) {
			return NULL;
		}
		details->pdo = module;
	}
	if (!module || !call->object || Z_TYPE_P(call->object) != IS_OBJECT) {
		return NULL;
	}
	return (const T *)EG(objects_store).object_buckets[Z_OBJ_HANDLE_P(call->object)].bucket.obj.object;
}

const void *zq_pdo_driver_of_connection(const zq_stack_data *call TSRMLS_DC)
{
	const pdo_dbh_t *connection = pdo_data<pdo_dbh_t>(call TSRMLS_CC);
	return connection ? connection->driver : NULL;
}

const void *zq_pdo_driver_of_statement(const zq_stack_data *call TSRMLS_DC)
{
	const pdo_stmt_t *statement = pdo_data<pdo_stmt_t>(call TSRMLS_CC);
	return statement && statement->dbh ? statement->dbh->driver : NULL;
}

const char *zq_pdo_driver_vendor(const void *driver)
{
	const char *name = driver ? ((const pdo_driver_t *)driver)->driver_name : "";
	for (const vendor_row &row : vendors) {
		size_t len = strlen(row.driver) - 1;
		if (strncmp(name, row.driver, len) == 0 && !name[len]) {
			return row.vendor;
		}
	}
	return strcmp(name, "dblib") == 0 ? "SQLServer" : name;
}

#else

const void *zq_pdo_driver_of_connection(const zq_stack_data *TSRMLS_DC)
{
	return NULL;
}

const void *zq_pdo_driver_of_statement(const zq_stack_data *TSRMLS_DC)
{
	return NULL;
}

const char *zq_pdo_driver_vendor(const void *)
{
	return "";
}

#endif
