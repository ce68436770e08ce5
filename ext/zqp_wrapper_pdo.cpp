/* The vendors by what PDO calls them. */
#include "zqp_wrapper_pdo.h"

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

bool zq_is_pdo_method(const zq_stack_data *call)
{
	const zend_function *function = call->execute_data->function_state.function;
	return function->type == ZEND_INTERNAL_FUNCTION && function->internal_function.module &&
		strcmp(function->internal_function.module->name, "PDO") == 0;
}

#ifdef ZQ_KNOWS_PDO

const char *zq_pdo_driver_vendor(const void *driver)
{
	const char *name = ((const pdo_driver_t *)driver)->driver_name;
	for (const vendor_row &row : vendors) {
		size_t len = strlen(row.driver) - 1;
		if (strncmp(name, row.driver, len) == 0 && !name[len]) {
			return row.vendor;
		}
	}
	return strcmp(name, "dblib") == 0 ? "SQLServer" : name;
}

#else

const char *zq_pdo_driver_vendor(const void *)
{
	return "";
}

#endif
