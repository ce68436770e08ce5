/* The configuration of each application: seeded from the settings, refreshed from the daemon at most once a minute,
 * copied into the globals at the start of every action.
 *
 * Records are shared by all threads of the process. The process lock is held for looking up, copying and replacing
 * values, never while the daemon is spoken to or request memory is allocated. */
#include "zqp_io.h"

#include <errno.h>
#include <inttypes.h>
#include <sys/socket.h>

#include "zqp_debug.h"
#include "zqp_lock.h"
#include "zqp_naming_rules.h"
#include "zqp_process_memory.h"
#include "zqprof_settings.h"

static const int refresh_interval_s = 60;
static const int applications_max = 1024;   /* the name may come from the client's Host header */
static const size_t strays_max = 32u << 20; /* two packets of the greatest size */

static HashTable g_app_hash;
static int g_too_many_logged;

void zq_app_config_init(void)
{
	zq_environment_init();
	g_too_many_logged = 0;
	zend_hash_init(&g_app_hash, 8, NULL, app_cfg_info_dtor, 1);
}

void zq_app_config_final(void)
{
	zend_hash_destroy(&g_app_hash);
	zq_environment_final();
}

void app_cfg_info_dtor(void *ele)
{
	app_cfg_info *rec = *(app_cfg_info **)ele;
	free(rec->app_id);
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			free(zq_setting_field<char *>(rec, row));
		}
	}
	free(rec);
}

/* ---- records ----------------------------------------------------------------------------------------------------- */

/* What holds until an answer says otherwise. Keys are literals, so that a NUL ends them. */
static void set_initially(app_cfg_info *rec, const zq_setting_row &row)
{
	const bool from_php_ini = row.initial == ZQ_FROM_PHP_INI;
	switch (row.kind) {
	case ZQ_SETTING_NUMBER:
	case ZQ_SETTING_ASKED:
		zq_setting_field<int>(rec, row) = from_php_ini ? zq_ini_number(row.key.data()) : (int)row.initial;
		break;
	case ZQ_SETTING_SQL_MODE:
		zq_setting_field<int>(rec, row) = zq_record_type_to_int(from_php_ini ? zq_ini_str(row.key.data(), "") : "");
		break;
	case ZQ_SETTING_FRACTION: zq_setting_field<double>(rec, row) = row.initial; break;
	case ZQ_SETTING_SECONDS: zq_setting_field<uint64>(rec, row) = (uint64)row.initial; break;
	case ZQ_SETTING_TEXT:
	case ZQ_SETTING_ANY_TEXT: break;
	}
}

static app_cfg_info *record_from_settings(void)
{
	app_cfg_info *rec = (app_cfg_info *)calloc(1, sizeof(*rec));
	if (!rec) {
		return NULL;
	}
	for (const zq_setting_row &row : zq_setting_table) {
		set_initially(rec, row);
	}
	rec->action_tracer_log_sql = zq_ini_number("zqs.action_tracer.log_sql");
	return rec;
}

/* The caller holds the lock. */
static app_cfg_info *find_record(const char *key, uint key_size)
{
	app_cfg_info **found;
	return zend_hash_find(&g_app_hash, key, key_size, (void **)&found) == SUCCESS ? *found : NULL;
}

/* Adds `fresh` unless another thread was first or the table is full; frees it when it is not the one kept. */
static app_cfg_info *add_record(const char *key, uint key_size, app_cfg_info *fresh)
{
	sigset_t saved;
	zq_lock(&saved);
	app_cfg_info *rec = find_record(key, key_size);
	int full = !rec && zend_hash_num_elements(&g_app_hash) >= applications_max;
	int warn = full && !g_too_many_logged;
	g_too_many_logged |= full;
	if (!rec && !full && fresh) {
		zend_hash_add(&g_app_hash, key, key_size, &fresh, sizeof(fresh), NULL);
		rec = fresh;
		fresh = NULL;
	}
	zq_unlock(&saved);
	if (warn) {
		ZQ_LOG(
			ZQ_LOG_WARNING, "more than %d applications in one process, new ones are not monitored", applications_max);
	}
	free(fresh);
	return rec;
}

/* What a request takes over from a record: plain values, and malloc'ed copies of the texts. */
typedef app_cfg_info config_snapshot;

/* The caller holds the lock: no engine allocation here. */
static void take_snapshot(config_snapshot *snapshot, const app_cfg_info *rec)
{
	*snapshot = *rec;
	snapshot->app_id = NULL;
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			char *&text = zq_setting_field<char *>(snapshot, row);
			text = text ? zq_strdup(text) : NULL;
		}
	}
}

/* Replaces a request copy; a bailout of estrdup leaves `text` leaked once, in a request that is about to end. */
static void take_text(char **field, char *text)
{
	zq_replace_text(field, NULL);
	if (text) {
		*field = estrdup(text);
		free(text);
	}
}

/* Moves a snapshot into the globals. */
static void use_snapshot(config_snapshot *snapshot TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_app_config taken = *snapshot;
	for (const auto &row : zq_setting_table) {
		if (zq_setting_is_text(row)) {
			take_text(&zq_setting_field<char *>(g, row), zq_setting_field<char *>(snapshot, row));
			zq_setting_field<char *>(&taken, row) = zq_setting_field<char *>(g, row);
		}
	}
	static_cast<zq_app_config &>(*g) = taken;
	if (!g->action_tracer_action_threshold) {
		g->action_tracer_action_threshold = zq_str_to_int(ZQ_DEFAULT_ACTION_THRESHOLD);
	}
	if (g->profile_end_time < g->rinit_tick / 1000000) {
		g->profile_end_time = 0;
	}
}

void ini2zqg(app_cfg_info *ini TSRMLS_DC)
{
	config_snapshot snapshot;
	sigset_t saved;
	zq_lock(&saved);
	take_snapshot(&snapshot, ini);
	zq_unlock(&saved);
	use_snapshot(&snapshot TSRMLS_CC);
}

/* get_app_info() and, in the same hold of the lock, a snapshot when one is wanted. */
static app_cfg_info *app_info(config_snapshot *snapshot TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	char *key;
	uint key_size = (uint)spprintf(&key, 0, "%s%s", g->license ? g->license : "", g->app_name ? g->app_name : "") + 1;
	sigset_t saved;
	zq_lock(&saved);
	app_cfg_info *rec = find_record(key, key_size);
	if (rec && snapshot) {
		take_snapshot(snapshot, rec);
	}
	zq_unlock(&saved);
	ZQ_LOG(ZQ_LOG_DEBUG, "get app config from %s, app=%s", rec ? "hash" : "ini", g->app_name);
	if (!rec) {
		rec = add_record(key, key_size, record_from_settings());
		if (rec && snapshot) {
			zq_lock(&saved);
			take_snapshot(snapshot, rec);
			zq_unlock(&saved);
		}
	}
	efree(key);
	return rec;
}

app_cfg_info *get_app_info(TSRMLS_D)
{
	return app_info(NULL TSRMLS_CC);
}

void zq_app_resource_used(int percent TSRMLS_DC)
{
	app_cfg_info *rec = get_app_info(TSRMLS_C);
	sigset_t saved;
	if (rec) {
		zq_lock(&saved);
		rec->resource_used = percent;
		zq_unlock(&saved);
	}
}

/* ---- query and answer -------------------------------------------------------------------------------------------- */

/* The query packet; the caller frees it. */
static smart_str build_query(uint64 known_stamp TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	smart_str packet = {};
	zq_append_header(&packet, ZQ_PK_APPINFO, 0);
	zq_append_text_record(&packet, ZQ_RE_APP_NAME, g->app_name);
	zq_append_text_record(&packet, ZQ_RE_LICENSE, g->license);
	zq_append_record(&packet, ZQ_RE_STAMP, (const char *)&known_stamp, sizeof(known_stamp));
	pack_write_config(&packet, "zqs.agent_enabled", zq_ini_number("zqs.agent_enabled") == 1 ? "true" : "false");
	zq_append_environment(&packet TSRMLS_CC);
	zq_fill_packet_header(&packet, ZQ_PK_APPINFO);
	return packet;
}

/* Sends the query; 0, or -1 with the socket closed. */
static int send_query(uint64 known_stamp TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	smart_str packet = build_query(known_stamp TSRMLS_CC);
	ZQ_LOG(ZQ_LOG_DEBUG, "querying config from daemon, app=%s ,license=%s, fd=%d", g->app_name, g->license,
		g->daemon_sock);
	int sent = g->daemon_sock != -1 && zq_daemon_send(g->daemon_sock, packet.c, packet.len) == (ssize_t)packet.len;
	zq_buffer_free(&packet);
	if (!sent) {
		ZQ_LOG(ZQ_LOG_CRITICAL, "send config to daemon fail");
		close_daemon(g->daemon_sock TSRMLS_CC);
		return -1;
	}
	return 0;
}

static size_t body_len(const unsigned char *header)
{
	return ((size_t)header[1] << 16) | ((size_t)header[2] << 8) | header[3];
}

/* Where a stream stands between its packets. */
struct packet_position {
	unsigned char header[4];
	size_t header_len; /* bytes of the next packet's header that have come */
	size_t body_due;   /* bytes of the present packet's body that have not */
};

static void pass_over(packet_position *stream, const char *bytes, size_t len)
{
	while (len) {
		size_t step = 1;
		if (stream->body_due) {
			step = len < stream->body_due ? len : stream->body_due;
			stream->body_due -= step;
		} else {
			stream->header[stream->header_len++] = (unsigned char)*bytes;
			if (stream->header_len == sizeof(stream->header)) {
				stream->body_due = body_len(stream->header);
				stream->header_len = 0;
			}
		}
		bytes += step;
		len -= step;
	}
}

/* An answer that nobody waits for, a daemon's second to one query, would be taken for the next query's, of another
 * application: what lies in the socket is thrown away. Behind part of a packet, or a flood, the connection as well. */
static void discard_strays(TSRMLS_D)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	packet_position stream = {};
	char bytes[4096];
	size_t discarded = 0;
	ssize_t len = 0;
	while (discarded < strays_max && (len = recv(g->daemon_sock, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0) {
		pass_over(&stream, bytes, (size_t)len);
		discarded += (size_t)len;
	}
	if (!discarded) {
		return;
	}
	ZQ_LOG(ZQ_LOG_WARNING, "discarded %zu bytes from the daemon that nobody asked for", discarded);
	if (discarded >= strays_max || stream.header_len || stream.body_due) {
		close_daemon(g->daemon_sock TSRMLS_CC);
		zq_daemon_socket(1 TSRMLS_CC);
	}
}

/* Receives the body of an answer: malloc'ed and its length, null when there is none or the stream broke. */
static char *receive_answer(size_t *len TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	unsigned char header[4];
	ssize_t received = zq_daemon_recv(g->daemon_sock, (char *)header, sizeof(header));
	if (received != (ssize_t)sizeof(header)) {
		ZQ_LOG(ZQ_LOG_CRITICAL, "recv app config header fail: %zd bytes, %s", received, strerror(errno));
		close_daemon(g->daemon_sock TSRMLS_CC);
		return NULL;
	}
	*len = body_len(header);
	if (!*len) {
		ZQ_LOG(ZQ_LOG_DEBUG, "no config data, use default setting");
		return NULL;
	}
	char *data = (char *)malloc(*len); /* up to 16 MiB: must not count against the script's memory limit */
	received = data ? zq_daemon_recv(g->daemon_sock, data, *len) : -1;
	if (received != (ssize_t)*len) {
		ZQ_LOG(ZQ_LOG_CRITICAL, "recv app config data fail: %zd bytes, %s", received, strerror(errno));
		close_daemon(g->daemon_sock TSRMLS_CC);
		free(data);
		return NULL;
	}
	if (header[0] != ZQ_PK_APPINFO) {
		ZQ_LOG(ZQ_LOG_CRITICAL, "data is not PK_APPINFO!");
		free(data);
		return NULL;
	}
	return data;
}

/* Tells of a pattern that will not do what its author meant; `context` is how many more may be told of. */
static void warn_of_pattern(void *context, const char *pattern)
{
	size_t len = zq_regex_examined_len(pattern);
	if (len == ZQ_REGEX_MOST_BYTES || (*(int *)context)-- <= 0) {
		return;
	}
	if (len) {
		ZQ_LOG(ZQ_LOG_WARNING, ZQ_REGEX_BOUNDED, len, pattern);
	} else {
		ZQ_LOG(ZQ_LOG_WARNING, ZQ_REGEX_REFUSED, pattern);
	}
}

/* Once for each configuration. */
static void warn_of_patterns(TSRMLS_D)
{
	int left = 20;
	sigset_t saved;
	cArray *lines = get_c_array(ZQG(urls_captured), '\n');
	zq_hold_timers(&saved); /* libc's heap */
	for (int i = 0; lines && i < lines->length; i++) {
		warn_of_pattern(&left, lines->items[i]);
	}
	zq_each_rule_pattern(ZQG(naming_rules), warn_of_pattern, &left);
	zq_allow_timers(&saved);
	free_c_array(lines);
}

/* Applies an answer and frees it; 1 when the globals have to follow. `*renewed`: with a configuration of a new stamp.
 */
static int use_answer(app_cfg_info *rec, char *data, size_t len, uint64 known_stamp, int64_t now, int *renewed)
{
	zq_config_answer answer;
	sigset_t saved;
	zq_parse_config_answer(&answer, data, len, known_stamp);
	free(data);
	zq_lock(&saved);
	zq_apply_config_answer(rec, &answer, now);
	zq_unlock(&saved);
	zq_free_config_answer(&answer);
	*renewed = answer.renewed;
	if (answer.renewed) {
		ZQ_LOG(ZQ_LOG_DEBUG, "update config time=%ld", (long)now);
	}
	if (answer.newest) {
		ZQ_LOG(ZQ_LOG_DEBUG, "local config is newest");
	}
	return !answer.newest;
}

void update_app_info(long tv_sec TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	config_snapshot snapshot;
	app_cfg_info *rec = app_info(&snapshot TSRMLS_CC);
	if (!rec) {
		g->agent_enabled = 0;
		return;
	}
	int64_t update_sec = snapshot.update_sec;
	uint64 known_stamp = snapshot.daemon_stamp;
	use_snapshot(&snapshot TSRMLS_CC);
	if (update_sec && tv_sec - update_sec < refresh_interval_s) {
		return;
	}
	if (zq_daemon_socket(1 TSRMLS_CC) != -1) {
		discard_strays(TSRMLS_C);
	}
	if (send_query(known_stamp TSRMLS_CC) == -1) {
		return;
	}
	size_t len = 0;
	char *data = receive_answer(&len TSRMLS_CC);
	int renewed = 0;
	if (data && use_answer(rec, data, len, known_stamp, tv_sec, &renewed)) {
		ini2zqg(rec TSRMLS_CC);
	}
	if (renewed && zqprof_ini_log_level >= ZQ_LOG_WARNING) {
		warn_of_patterns(TSRMLS_C);
	}
}
