/* The state that every other module reads and writes: per thread, and the few facts of the process. Above nothing but
 * the types and the clock, so that a module that needs a field needs no more than this. */
#ifndef ZQP_STATE_H
#define ZQP_STATE_H

#include <sys/types.h>

#include "zqp_clock.h"
#include "zqp_rum_text.h"
#include "zqp_setting_table.h"
#include "zqp_types.h"

#define ZQ_MODULE_NAME "quorbit"
/* The build date serves as the version everywhere: phpinfo, start-up log, crash banner, configuration query. */
#define ZQ_VERSION "Oct 20 2016"

struct error_element;
struct zq_details;

enum { ZQ_OPEN_CALLS = 1024 }; /* nesting up to which a call that does not return is known */

/* One instance per thread, zero-filled when the thread appears. Lifetimes: "request" memory comes from the engine's
 * request allocator and is gone at request end; "thread" memory is malloc'ed and lives until the thread's globals are
 * destroyed. Time stamps are microseconds of cycle_timer(). The fields of the first group are the interface that the
 * whole agent agrees on; the private ones follow behind `transaction_req_id`. */
struct zend_zqprof_globals : zq_app_config { /* whose texts are request copies of the application's record */
	int daemon_sock;                         /* -1: not connected */
	char *app_name;                          /* request */
	const char *license;                     /* points at license_copy or at a constant */
	int hook_enabled;                        /* 1 while an action is open, else 0 */
	HashTable *wrapper_function_hash;
	HashTable *performance_function_hash;
	char *action_name;     /* request */
	int action_name_level; /* 0 none, 2 URI, 3 controller class, 204 rule or framework, 255 application */
	int use_frame;
	uint64 rinit_cpu; /* clock ticks, user + system */
	struct error_element *error;
	zend_llist *sqls;
	zend_llist *tracer;
	int tracer_level;
	int child_has_tracer;
	uint64 tracer_threshold_tick; /* us */
	char *tracer_id;              /* request */
	zend_llist *components;       /* open components, innermost last */
	HashTable *components_hash;
	size_t rum_write_length;
	int rum_flag;
	int block_duration; /* ms */
	uint64 sum_zq_used;
	uint64 rinit_tick;
	uint64 rdown_tick;
	int sum_db_metric;  /* ms */
	char *prepared_sql; /* request */
	const char *pdo_db; /* static vendor name, "" or null */
	HashTable *nosql_memcc;
	HashTable *nosql_redis;
	HashTable *nosql_mongo;
	zend_llist *webservices;
	int webservice_should_ignored;
	char *thrift_host;    /* request */
	char *thrift_tx_data; /* request */
	int ws_enabled;
	int headers_sent;
	int transaction_parent;
	char *transaction_id;                 /* request */
	char *transaction_curl_response_data; /* request */
	char *transaction_req_id;             /* request */

	char *request_path;         /* request; null: the server API's own URI counts */
	struct zq_details *details; /* request; null: the daemon does not ask for them */
	int request_open;           /* between request start and request end: request memory may be kept */
	pid_t daemon_pid;           /* process that opened daemon_sock: a forked child must not use its parent's stream */
	ino_t daemon_inode;         /* of daemon_sock: the number alone may be another file's by now */
	char *license_copy;         /* thread */
	int in_agent_call;          /* > 0 while the agent itself calls PHP code: the hooks pass everything through */
	unsigned component_generation; /* counts the times `components` was emptied: guards stale element pointers */
	size_t recorded_sql_bytes;     /* text kept in `sqls` and `webservices`; beyond a bound only totals grow */
	size_t recorded_webservice_bytes;
	int unlisted_webservice_ms;    /* of outgoing calls beyond that bound */
	HashTable *own_curl_callbacks; /* curl handles that have ours and nothing of the script's, by resource id; request;
									  may be null */
	int recorded_limit_logged;
	zq_page_place rum_page;  /* behind what has been written of the page */
	int rum_header_lines;    /* line ends that are still the headers', when the writer gets them next */
	unsigned contexts_apart; /* stream contexts that the agent has made for SOAP clients of this thread */
	zq_clock clock;
	/* The calls that are running (zqp_open_calls), outermost first; the count also knows those for which there is no
	 * row. */
	unsigned open_calls;
	zend_execute_data *open_frames[ZQ_OPEN_CALLS];
	uint64 open_starts[ZQ_OPEN_CALLS]; /* us */
	struct zq_ended_call *ended_calls; /* innermost first; process memory, until the action is reported */
	struct zq_ended_call *last_ended_call;
	unsigned ended_count;
	zend_execute_data *script_frame; /* that ran when in_agent_call left 0 */
	zend_execute_data *compiling_in; /* frame whose file is being compiled; null: none */
	uint64 watch_filter[16];         /* names in the two hook tables, as bits: one that is not set needs no lookup */
};

extern ts_rsrc_id zqprof_globals_id;
#define ZQG(field) TSRMG(zqprof_globals_id, zend_zqprof_globals *, field)

/* The calling thread's globals; borrowed, valid as long as the thread. */
static inline zend_zqprof_globals *zq_globals(TSRMLS_D)
{
	return (zend_zqprof_globals *)(*((void ***)tsrm_ls))[TSRM_UNSHUFFLE_RSRC_ID(zqprof_globals_id)];
}

/* Puts `text` (null: none) in the place of a text in request memory that its field owned. */
static inline void zq_replace_text(char **field, char *text)
{
	char *previous = *field;
	*field = text;
	if (previous) {
		efree(previous);
	}
}

/* The request's URI: what names, rules, the URL filter and the report take for it: of the server API, or the path that
 * the client asked for when the configuration says so. Borrowed; null when there is none. */
static inline const char *zq_request_uri(TSRMLS_D)
{
	return ZQG(request_path) ? ZQG(request_path) : SG(request_info).request_uri;
}

/* 1 when an action is open and its hooks are to see what runs: neither of an application that is not monitored, nor
 * what the agent itself calls. hook_enabled is 0 or 1, so that one comparison answers two questions. */
static inline int zq_is_watching(const zend_zqprof_globals *g)
{
	return g->hook_enabled > g->in_agent_call && g->agent_enabled;
}

/* 1 when the server API is the command line ("cli", any case); set at module start-up. */
extern int g_cli;
/* 1 between the end of module start-up and the start of module shut-down. While it is 0 there are no globals, and
 * whatever can be reached then tests it first: the hooks that stay installed after shut-down, and the request handlers
 * and functions, which the engine calls without start-up when an extension loaded earlier could not be started. */
extern int g_module_up;

/* The engine's hooks as they were before this module replaced them. */
extern void (*_zend_execute_ex)(zend_execute_data *execute_data TSRMLS_DC);
extern void (*_zend_execute_internal)(
	zend_execute_data *execute_data_ptr, struct _zend_fcall_info *fci, int return_value_used TSRMLS_DC);
extern user_opcode_handler_t _zend_exit_handler; /* null: none */
extern zend_op_array *(*_zend_compile_file)(zend_file_handle *file_handle, int type TSRMLS_DC);
extern void (*_zend_error_cb)(
	int type, const char *error_filename, const uint error_lineno, const char *format, va_list args);
extern int (*_sapi_ub_write)(const char *str, unsigned int str_length TSRMLS_DC);
/* The functions offered to PHP code, ended by an empty entry; set at module start-up. */
extern const zend_function_entry *g_functions;

#endif
