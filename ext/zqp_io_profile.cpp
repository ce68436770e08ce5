/* The thread-profile packet: one event, sent at once, while the daemon wants to watch what a thread does. */
#include <time.h>

#include "zqp_debug.h"
#include "zqp_io.h"

static void send_event(int sock, const char *line, size_t line_len TSRMLS_DC)
{
	smart_str packet = {};
	zq_append_header(&packet, ZQ_PK_THREAD_PROFILE, 0);
	zq_append_record(&packet, ZQ_RE_APP_NAME, ZQG(app_name), ZQG(app_name) ? strlen(ZQG(app_name)) : 0);
	zq_append_record(&packet, ZQ_RE_LICENSE, ZQG(license), ZQG(license) ? strlen(ZQG(license)) : 0);
	zq_append_record(&packet, ZQ_RE_PROFILE_LINE, line, line_len);
	zq_fill_packet_header(&packet, ZQ_PK_THREAD_PROFILE);

	if (zq_daemon_send(sock, packet.c, packet.len) != (ssize_t)packet.len) {
		close_daemon(sock TSRMLS_CC);
	}
	zq_buffer_free(&packet);
}

void thread_profile(const char *event, const char *name, const char *cls TSRMLS_DC)
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	if (ZQG(profile_end_time) < (uint64)now.tv_sec) {
		return;
	}
	int sock = zq_daemon_socket(0 TSRMLS_CC);
	if (sock == -1) {
		return;
	}
	char line[256];
	int len = snprintf(line, sizeof(line), "%ld%03d %d %s %s%s%s", (long)now.tv_sec, (int)(now.tv_nsec / 1000000),
		zq_thread_id(), event, cls ? cls : "", cls ? "::" : "", name);
	send_event(sock, line, len < (int)sizeof(line) ? (size_t)len : sizeof(line) - 1 TSRMLS_CC);
}
