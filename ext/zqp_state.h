/* The state that every other module reads and writes: per thread, and the few facts of the process. Above nothing but
 * the types and the clock, so that a module that needs a field needs no more than this. */
#ifndef ZQP_STATE_H
#define ZQP_STATE_H

#include <sys/types.h>

#include <type_traits>

#include "zqp_clock.h"
#include "zqp_rum_text.h"
#include "zqp_setting_table.h"
#include "zqp_types.h"

#define ZQ_MODULE_NAME "quorbit"
/* Of the protocol, which daemons go by. It is the module's version as well, wherever the agent names one: phpinfo,
 * start-up log, crash banner, configuration query. The product's version is CMake's. */
#define ZQ_PROTOCOL_VERSION "Oct 20 2016"

struct error_element;
struct zq_board_mapping;
struct zq_board_slot;
struct zq_details;
struct zq_radar;

enum { ZQ_OPEN_CALLS = 1024 }; /* nesting up to which a call that does not return is known */

/* What a thread of the engine keeps, by lifetime. Of the fields that own memory, those of zq_thread own malloc's, the
 * others the engine's request allocator's, unless they say otherwise. Time stamps are microseconds of cycle_timer().
 * The names are the interface that the whole agent agrees on. Each part is trivial, so that it begins as zeroes, by one
 * assignment, after zqp_action has freed what it owned. */

/* From the thread's first request to its last. What every call asks for comes first. */
struct zq_thread {
	int hook_enabled;  /* 1 while an action is open, else 0 */
	int in_agent_call; /* > 0 while the agent itself calls PHP code: the hooks pass everything through */
	zq_clock clock;
	struct zq_board_slot *board;      /* while an action is open and shown: where; else null */
	int daemon_sock;                  /* -1: not connected */
	unsigned daemon_process;          /* zq_process_number() that opened it: a forked child must not use its stream */
	ino_t daemon_inode;               /* of it: the number alone may be another file's by now */
	int has_signal_stack;             /* its own, the host's, or none to be had */
	void *signal_stack;               /* zq_open_signal_stack()'s; null: the host's, or none */
	const char *license;              /* points at license_copy or at a constant; phpinfo shows the last request's */
	char *license_copy;               /* owned */
	struct zq_board_slot *board_slot; /* the thread's, in the mapping; null: none */
	struct zq_board_mapping *board_mapping; /* that has it */
	uint64_t board_claim;                   /* under which */
	int64_t board_full_s;                   /* when no slot was free; 0: never */
	long curl_url_handle;                   /* resource whose URL the script set last */
	size_t curl_url_len;
	char curl_url[200];              /* it, as the board shows it; cut */
	unsigned component_generation;   /* counts the times `components` was emptied: guards stale element pointers */
	unsigned contexts_apart;         /* stream contexts that the agent has made for SOAP clients of this thread */
	zend_execute_data *script_frame; /* that ran when in_agent_call left 0 */
	zend_execute_data *compiling_in; /* frame whose file is being compiled; null: none */
	struct zq_radar *radar;          /* owned; null until the daemon asks for it */
	/* The calls that are running (zqp_open_calls), outermost first; the count also knows those for which there is no
	 * row. */
	unsigned open_calls;
	zend_execute_data *open_frames[ZQ_OPEN_CALLS];
	uint64 open_starts[ZQ_OPEN_CALLS]; /* us */
};

/* One request. The configuration's texts are copies of the application's record. */
struct zq_request : zq_app_config {
	int request_open;   /* between request start and request end: request memory may be kept */
	char *app_name;     /* owned */
	char *request_path; /* owned; null: the server API's own URI counts */
	HashTable *wrapper_function_hash;
	HashTable *performance_function_hash;
	uint64 watch_filter[16]; /* names in these two tables, as bits: one that is not set needs no lookup */
	uint64 rinit_tick;       /* when the request or, in a command-line run, the action began */
	uint64 rdown_tick;       /* when it ended */
	int use_frame;           /* a framework has been recognised */
	int block_duration;      /* ms between the front end and request start */
	uint64 sum_zq_used;
	size_t rum_write_length;
	int rum_flag;
	zq_page_place rum_page; /* after what has been written of the page */
	int rum_header_lines;   /* line ends that are still the headers', when the writer gets them next */
	int headers_sent;
	HashTable *curl_handles;    /* of zq_curl_handle (zqp_wrapper_curl), by resource id; may be null */
	unsigned curl_handles_room; /* so many, and those that are gone are looked for */
	int transaction_parent;     /* a monitored application of the same account is the caller */
};

/* One action: what a request reports, or one of several in a command-line run. */
struct zq_action {
	char *action_name;           /* owned */
	int action_name_level;       /* 0 none, 2 URI, 3 controller class, 204 rule or framework, 255 application */
	uint64 rinit_cpu;            /* clock ticks, user + system, when it began */
	struct error_element *error; /* owned, malloc's */
	zend_llist *sqls;
	zend_llist *tracer;
	int tracer_level;
	int child_has_tracer;
	uint64 tracer_threshold_tick; /* us */
	char *tracer_id;              /* owned */
	zend_llist *components;       /* open components, innermost last */
	HashTable *components_hash;
	int sum_db_metric;  /* ms */
	char *prepared_sql; /* owned */
	size_t prepared_len;
	const char *pdo_db; /* static vendor name, "" or null */
	HashTable *nosql_memcc;
	HashTable *nosql_redis;
	HashTable *nosql_mongo;
	zend_llist *webservices;
	int webservice_should_ignored;
	char *thrift_host;    /* owned */
	char *thrift_tx_data; /* owned */
	int ws_enabled;
	char *transaction_id;                 /* owned */
	char *transaction_curl_response_data; /* owned */
	char *transaction_req_id;             /* owned */
	struct zq_details *details;           /* owned; null: the daemon does not ask for them */
	struct zq_ended_call *ended_calls;    /* innermost first; owned, malloc's, until the action is reported */
	struct zq_ended_call *last_ended_call;
	unsigned ended_count;
	size_t recorded_sql_bytes; /* text kept in `sqls` and `webservices`; beyond a bound only totals grow */
	size_t recorded_webservice_bytes;
	int unlisted_webservice_ms; /* of outgoing calls beyond that bound */
	int recorded_limit_logged;
};

/* One instance per thread, zero-filled when the thread appears. */
struct zend_zqprof_globals : zq_thread, zq_request, zq_action {};
static_assert(std::is_trivial<zend_zqprof_globals>::value, "zero-filled, never constructed, emptied by assignment");

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

/* True when an action is open and its hooks are to see what runs: neither of an application that is not monitored, nor
 * what the agent itself calls. hook_enabled is 0 or 1, so that one comparison answers two questions. */
static inline bool zq_is_watching(const zend_zqprof_globals *g)
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
extern user_opcode_handler_t _zend_exit_handler;      /* null: none */
extern user_opcode_handler_t _zend_last_exit_handler; /* of a module that started later; null: none */
extern zend_op_array *(*_zend_compile_file)(zend_file_handle *file_handle, int type TSRMLS_DC);
extern void (*_zend_error_cb)(
	int type, const char *error_filename, const uint error_lineno, const char *format, va_list args);
extern int (*_sapi_ub_write)(const char *str, unsigned int str_length TSRMLS_DC);
/* The functions offered to PHP code, ended by an empty entry; set at module start-up. */
extern const zend_function_entry *g_functions;

#endif
