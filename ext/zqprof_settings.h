/* The settings of php.ini. */
#ifndef ZQPROF_SETTINGS_H
#define ZQPROF_SETTINGS_H

#include "zqp_state.h"

/* The table that the module registers; ended by an empty entry. */
extern const zend_ini_entry zqprof_ini_entries[];
/* Value of a setting, borrowed; `default_value` when it is unknown, null or empty. */
const char *zq_ini_str(const char *skey, const char *default_value);
/* Value of a setting that names a level of a log, borrowed; "info" when it is unset. An empty one is a value: php.ini's
 * parser makes one of an unquoted OFF. */
const char *zq_ini_level(const char *skey);
/* Value of a number or switch; 0 when it is unknown or empty. */
int zq_ini_number(const char *skey);
/* Writes the path of a file that agent or daemon keep below the runtime root, cut to `size` bytes with its NUL, and
 * returns the length of all of it. */
int zq_runtime_path(char *path, size_t size, const char *file_name);
#define ZQ_AGENT_LOG "php-agent.log"
#define ZQ_DAEMON_SOCKET ".quorbit.sock"

#endif
