/* Everything that leaves the process: the socket to the local daemon, the configuration exchange, the metric packet,
 * the response header for a calling application. */
#ifndef ZQP_IO_H
#define ZQP_IO_H

#include "zqp_helper.h"

/* Record types of the wire: one byte of type, three bytes of length (big-endian), body. */
enum zq_record {
	ZQ_PK_THREAD_PROFILE = 0x09,
	ZQ_PK_APPINFO = 0x0A,
	ZQ_PK_METRIC = 0x0B,
	ZQ_RE_STAMP = 0x0C,
	ZQ_RE_CONFIG = 0x0D,
	ZQ_RE_LICENSE = 0x0E,
	ZQ_RE_APP_ID = 0x10,
	ZQ_RE_APP_NAME = 0x11,
	ZQ_RE_ACTION_NAME = 0x12,
	ZQ_RE_BLOCK_MS = 0x14,
	ZQ_RE_DURATION_MS = 0x15,
	ZQ_RE_DB_MS = 0x16,
	ZQ_RE_NOSQL_TOTAL = 0x17,
	ZQ_RE_EXTERNAL_MS = 0x18,
	ZQ_RE_CPU_USED = 0x1A,
	ZQ_RE_CPU_SYSTEM = 0x1B,
	ZQ_RE_ENV = 0x1C,
	ZQ_RE_TRANSACTION_ID = 0x20,
	ZQ_RE_URI = 0x21,
	ZQ_RE_PARAM = 0x23,
	ZQ_RE_REQUEST = 0x24,
	ZQ_RE_TRACE = 0x25,
	ZQ_RE_TRACER_ID = 0x26,
	ZQ_RE_SQL = 0x27,
	ZQ_RE_SERVICE = 0x29,
	ZQ_RE_ERROR = 0x2A,
	ZQ_RE_COMPONENT = 0x2B,
	ZQ_RE_PROFILE_LINE = 0x2C,
	ZQ_RE_SERVICE_ERROR = 0x2D,
	ZQ_RE_DETAILS = 0x60,
	ZQ_RE_RADAR = 0x61
};
#define ZQ_MAX_BODY 0x1000000 /* a length has 24 bits: bodies must be shorter */

/* ---- zqp_io.cpp: framing, socket, launching the daemon ---- */
/* Appends a record header of `len` body bytes; the length is the caller's promise. */
void zq_append_header(smart_str *p, int type, size_t len);
/* Writes the length of the record that starts at `record` and ends where the packet does over its header. */
void zq_fill_length(smart_str *p, size_t record);
/* Appends a complete record. */
void zq_append_record(smart_str *p, int type, const char *body, size_t len);
/* The same of a text; null is an empty one. */
void zq_append_text_record(smart_str *p, int type, const char *text);
/* Writes header bytes over the first four bytes of a finished packet. */
void zq_fill_packet_header(smart_str *p, int type);
/* Records of the daemon's environment and configuration: "item=value"; a null value leaves nothing after the "=". */
void pack_write_env(smart_str *p, const char *item, const char *value);
void pack_write_config(smart_str *p, const char *item, const char *value);

/* Connected socket with 100 ms time-outs, its number above 2, or -1. `report_error`: a failed connect is logged. One
 * attempt. */
int open_daemon(int report_error TSRMLS_DC);
/* Closes the descriptor (if not -1) with a DEBUG line; daemon_sock becomes -1 in every case. */
void close_daemon(int sock TSRMLS_DC);
/* daemon_sock becomes what open_daemon() returns, and it is kept by what it can be told from another descriptor. */
void zq_daemon_connect(int report_error TSRMLS_DC);
/* daemon_sock becomes -1 when that number is not the connection any more: something in the process has closed what it
 * did not open, and the number may by now be a file or a connection of the script's. Nothing is closed. */
void zq_daemon_forget_foreign(zend_zqprof_globals *g);
/* Makes daemon_sock this process's own: drops a descriptor inherited through fork, connects when `connect_now` and
 * there is none. Returns daemon_sock, -1 when not connected. */
int zq_daemon_socket(int connect_now TSRMLS_DC);
/* Sends all of the packet, without SIGPIPE, within 100 ms and 100 ms more per MiB; the count that went out, or -1. */
ssize_t zq_daemon_send(int sock, const char *data, size_t len);
/* Receives exactly `len` bytes within the socket's time-out; the count that came, or -1. When not all came, errno says
 * why, 0 for the end of the stream. */
ssize_t zq_daemon_recv(int sock, char *data, size_t len);
/* Writes the daemon's configuration file when `create_config`, and runs the start command; result of system(), -1 when
 * the command does not fit its buffer. */
int zq_daemon_start(int create_config TSRMLS_DC);

/* ---- zqp_io_config.cpp: what the daemon decides per application ---- */
/* One per application and process, malloc'ed with all its strings, kept until module shut-down, shared by threads
 * behind the process lock. */
typedef struct app_cfg_info : zq_app_config {
	char *app_id;       /* null when not given */
	int64_t update_sec; /* s (monotonic) of the last answer with a stamp; 0: due */
	uint64 daemon_stamp;
} app_cfg_info;

void zq_app_config_init(void);     /* module start-up: the table of applications, empty */
void zq_app_config_final(void);    /* module shut-down: frees the records */
void app_cfg_info_dtor(void *ele); /* a hash destructor: receives the stored pointer's address */
/* The record of the current request's application, created from the settings when missing; borrowed. Null when the
 * process already keeps 1,024 applications: the request then runs unmonitored. */
app_cfg_info *get_app_info(TSRMLS_D);
/* Brings the record up to date with the daemon when due (`tv_sec`: now in s) and copies it into the globals. */
void update_app_info(long tv_sec TSRMLS_DC);
/* Copies a record into the globals: strings as request copies. */
void ini2zqg(app_cfg_info *ini TSRMLS_DC);
/* Sets `resource_used` (percent) of the current application's record. */
void zq_app_resource_used(int percent TSRMLS_DC);

/* ---- zqp_io_answer.cpp: the daemon's answer ---- */
/* What an answer changes, taken apart without any lock and without the engine. */
struct zq_config_answer {
	app_cfg_info values;                 /* valid where `given` says so; strings malloc'ed, owned until applied */
	bool given[zq_setting_table.size()]; /* per row */
	int stamped;                         /* an answer with a stamp puts off the next query */
	int renewed;                         /* a new stamp: strings that are not given go */
	int newest;                          /* the known stamp came back: nothing more to copy */
};
/* Takes the records of an answer apart. Stops quietly at a record that overruns; unknown records and keys are skipped.
 * `known_stamp` is the record's at the time of the query. */
void zq_parse_config_answer(zq_config_answer *answer, const char *data, size_t len, uint64 known_stamp);
/* Moves the answer into the record (`now` in s). The caller holds the process lock. */
void zq_apply_config_answer(app_cfg_info *rec, zq_config_answer *answer, int64_t now);
/* Frees what was not moved. */
void zq_free_config_answer(zq_config_answer *answer);

/* ---- zqp_io_environment.cpp: facts about the process that go with every configuration query ---- */
/* Appends the environment records; facts that need PHP calls are computed once per process. */
void zq_append_environment(smart_str *p TSRMLS_DC);
void zq_environment_init(void);  /* module start-up */
void zq_environment_final(void); /* module shut-down */

/* ---- zqp_io_metric.cpp: the metric packet ---- */
/* Builds and sends the packet of the current action, which took `duration_ms`. */
void send_metric(int duration_ms TSRMLS_DC);
/* Appends one record per request parameter of `arr_hash` that is not ignored. */
void add_http_params(smart_str *p, HashTable *arr_hash TSRMLS_DC);
/* Value of a quoted item name in answer data, without copying: 1 with start and length, or 0. */
int get_transcation_data_item(const char *data, const char *item_name, char **tyid, int *tyid_len);
/* The trace goes with this action: tracing is on and the action, or one that it called, was slow. */
int zq_trace_is_due(int duration_ms TSRMLS_DC);
/* `tracer_id`, made on first need; borrowed. */
const char *zq_tracer_id(TSRMLS_D);

/* ---- zqp_io_details.cpp ---- */
/* Appends the details record when the daemon asks for it; nothing when it would make the packet too long to send. */
void zq_append_details(smart_str *packet TSRMLS_DC);
/* The record of the radar, when there is something to tell; what it has is forgotten. */
void zq_append_radar(smart_str *packet TSRMLS_DC);

/* ---- zqp_io_profile.cpp: the thread profile ---- */
/* Sends one enter or leave event while a thread profile runs; `cls` may be null. Never connects. */
void thread_profile(const char *event, const char *name, const char *cls TSRMLS_DC);

/* ---- zqp_io_response.cpp: the answer to a calling application ---- */
/* Adds the response header once per request, at the first call while headers can still be added, when the request came
 * from a monitored caller. `is_shutdown` changes nothing. */
void send_transaction_data(int is_shutdown TSRMLS_DC);
/* "X-Vantor-Tx-Data: {...}", one line without control characters; request memory owned by the caller. */
char *build_transaction_tx_data(int is_shutdown TSRMLS_DC);
/* Adds one response header to what the script has set. The line must be writable: a server API may cut it while it
 * looks at it. */
void add_sapi_header(char *header_line, int header_line_len TSRMLS_DC);

#endif
