/* The daemon's end of the process: record framing, the socket of each thread, and launching a daemon that is absent. */
#include "zqp_io.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "zqp_debug.h"
#include "zqp_lock.h"
#include "zqprof_settings.h"

#ifndef ZQ_DAEMON_TIMEOUT_MS
#define ZQ_DAEMON_TIMEOUT_MS 100
#endif

/* What a stalled daemon may cost a request, per call. */
static const uint64 daemon_timeout_us = ZQ_DAEMON_TIMEOUT_MS * 1000;
static const size_t MIB = 1 << 20;

/* ---- framing ----------------------------------------------------------------------------------------------------- */

/* One 32-bit word in network order: type in the high 8 bits, length in the low 24. */
static void put_header(char *at, uint32_t word)
{
	at[0] = (char)(word >> 24);
	at[1] = (char)(word >> 16);
	at[2] = (char)(word >> 8);
	at[3] = (char)word;
}

void zq_append_header(smart_str *p, int type, size_t len)
{
	char header[4];
	put_header(header, ((uint32_t)type << 24) | (uint32_t)len);
	zq_append(p, header, sizeof(header));
}

void zq_append_record(smart_str *p, int type, const char *body, size_t len)
{
	zq_append_header(p, type, len);
	zq_append(p, body, len);
}

void zq_append_text_record(smart_str *p, int type, const char *text)
{
	zq_append_record(p, type, text, text ? strlen(text) : 0);
}

void zq_fill_length(smart_str *p, size_t record)
{
	put_header(p->c + record, ((uint32_t)(unsigned char)p->c[record] << 24) | (uint32_t)(p->len - record - 4));
}

void zq_fill_packet_header(smart_str *p, int type)
{
	put_header(p->c, ((uint32_t)type << 24) | (uint32_t)(p->len - 4));
}

static void pack_write(smart_str *p, int type, const char *item, const char *value)
{
	size_t item_len = strlen(item);
	size_t value_len = value ? strlen(value) : 0;
	zq_append_header(p, type, item_len + 1 + value_len);
	zq_append(p, item, item_len);
	zq_append_char(p, '=');
	zq_append(p, value, value_len);
}

void pack_write_env(smart_str *p, const char *item, const char *value)
{
	pack_write(p, ZQ_RE_ENV, item, value);
}
void pack_write_config(smart_str *p, const char *item, const char *value)
{
	pack_write(p, ZQ_RE_CONFIG, item, value);
}

/* ---- socket ------------------------------------------------------------------------------------------------------ */

static int set_timeout(int sock, int option, const char *name)
{
	struct timeval timeout = {daemon_timeout_us / 1000000, daemon_timeout_us % 1000000};
	if (setsockopt(sock, SOL_SOCKET, option, &timeout, sizeof(timeout)) == 0) {
		return 0;
	}
	ZQ_LOG(ZQ_LOG_CRITICAL, "set socket %s fail: %s", name, strerror(errno));
	return -1;
}

/* The descriptor under a number above 2, -1 with errno set on failure. In a process without standard output the
 * script's next file must get that number, as it counts on, and what the script prints must not go to the daemon. */
static int above_standard(int fd)
{
	if (fd == -1 || fd > STDERR_FILENO) {
		return fd;
	}
	int higher = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
	int error = errno;
	close(fd);
	errno = error;
	return higher;
}

/* Fills the address; -1 with errno set when the path has no room in it. */
static int daemon_address(struct sockaddr_un *address, const char *path)
{
	memset(address, 0, sizeof(*address));
	address->sun_family = AF_UNIX;
	if (strlen(path) >= sizeof(address->sun_path)) {
		errno = ENAMETOOLONG;
		return -1;
	}
	strcpy(address->sun_path, path);
	return 0;
}

static int connect_once_more_if_interrupted(int sock, const struct sockaddr_un *address)
{
	int result = connect(sock, (const struct sockaddr *)address, sizeof(*address));
	if (result == -1 && errno == EINTR) {
		result = connect(sock, (const struct sockaddr *)address, sizeof(*address));
	}
	return result;
}

int open_daemon(int report_error TSRMLS_DC)
{
	char path[255];
	struct sockaddr_un address;
	/* A path that does not fit here does not fit the address either, which reports it. */
	zq_runtime_path(path, sizeof(path), ZQ_DAEMON_SOCKET);
	ZQ_LOG(ZQ_LOG_DEBUG, "connecting to daemon ipc=%s", path);
	int sock = above_standard(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	if (sock == -1) {
		ZQ_LOG(ZQ_LOG_CRITICAL, "create AF_UNIX socket fail: %s", strerror(errno));
		return -1;
	}
	if (set_timeout(sock, SO_SNDTIMEO, "SNDTIMEO") == -1 || set_timeout(sock, SO_RCVTIMEO, "RCVTIMEO") == -1) {
		close(sock);
		return -1;
	}
	if (daemon_address(&address, path) == 0 && connect_once_more_if_interrupted(sock, &address) == 0) {
		ZQ_LOG(ZQ_LOG_DEBUG, "re-established contact with the daemon on fd=%d", sock);
		return sock;
	}
	if (report_error) {
		ZQ_LOG(ZQ_LOG_CRITICAL, "connect socket %s fail: %s", path, strerror(errno));
	}
	close(sock);
	return -1;
}

void close_daemon(int sock TSRMLS_DC)
{
	if (sock != -1) {
		ZQ_LOG(ZQ_LOG_DEBUG, "close contact with the daemon on fd=%d", sock);
		close(sock);
	}
	ZQG(daemon_sock) = -1;
}

void zq_daemon_connect(int report_error TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	struct stat status = {};
	g->daemon_sock = open_daemon(report_error TSRMLS_CC);
	g->daemon_process = zq_process_number();
	fstat(g->daemon_sock, &status);
	g->daemon_inode = status.st_ino;
}

void zq_daemon_forget_foreign(zend_zqprof_globals *g)
{
	struct stat status;
	if (g->daemon_sock != -1 &&
		(fstat(g->daemon_sock, &status) == -1 || !S_ISSOCK(status.st_mode) || status.st_ino != g->daemon_inode)) {
		g->daemon_sock = -1;
	}
}

int zq_daemon_socket(int connect_now TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	zq_daemon_forget_foreign(g);
	if (g->daemon_sock != -1 && g->daemon_process != zq_process_number()) {
		/* Opened by the parent before a fork: two processes on one stream would mix their packets. */
		close(g->daemon_sock);
		g->daemon_sock = -1;
	}
	if (g->daemon_sock == -1 && connect_now) {
		zq_daemon_connect(1 TSRMLS_CC);
	}
	return g->daemon_sock;
}

/* Waits until the socket takes more, no longer than for one time-out and until `deadline`; false when that has passed.
 */
static bool wait_for_room(int sock, uint64 deadline)
{
	uint64 now = cycle_timer();
	uint64 wait_us = now + daemon_timeout_us < deadline ? daemon_timeout_us : deadline - now;
	struct pollfd room = {sock, POLLOUT, 0};
	return now < deadline && poll(&room, 1, (int)((wait_us + 999) / 1000)) != 0;
}

/* The time limit must not leave in the middle of an exchange: the stream would be out of step afterwards. The socket's
 * own time-out would start again with every bit that a slow reader takes: the packet as a whole has that time, and as
 * much again for each MiB, since a busy machine may let a daemon wait more than once for its turn. A daemon that takes
 * nothing has one time-out. */
ssize_t zq_daemon_send(int sock, const char *data, size_t len)
{
	sigset_t saved_mask;
	size_t sent = 0;
	ssize_t n;
	zq_hold_timers(&saved_mask);
	uint64 deadline = cycle_timer() + daemon_timeout_us * (1 + len / MIB);
	do {
		n = send(sock, data + sent, len - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
		sent += n > 0 ? (size_t)n : 0;
	} while (sent < len && (n > 0 || errno == EINTR || (errno == EAGAIN && wait_for_room(sock, deadline))));
	zq_allow_timers(&saved_mask);
	return sent || n >= 0 ? (ssize_t)sent : -1;
}

ssize_t zq_daemon_recv(int sock, char *data, size_t len)
{
	sigset_t saved_mask;
	size_t received = 0;
	ssize_t n;
	zq_hold_timers(&saved_mask);
	uint64 deadline = cycle_timer() + daemon_timeout_us;
	do {
		n = recv(sock, data + received, len - received, MSG_WAITALL);
		received += n > 0 ? (size_t)n : 0;
		/* A signal may interrupt the wait, which then continues within the same time. */
	} while (received < len && (n > 0 || (n == -1 && errno == EINTR)) && cycle_timer() < deadline);
	zq_allow_timers(&saved_mask);
	if (received < len && n >= 0) {
		errno = n ? EAGAIN : 0; /* part of it in all that time; the end of the stream, which sets none */
	}
	return received || n >= 0 ? (ssize_t)received : -1;
}

/* ---- launch ------------------------------------------------------------------------------------------------------ */

static const char *true_or_false(const char *key)
{
	return zend_ini_long((char *)key, (uint)strlen(key) + 1, 0) == 1 ? "TRUE" : "FALSE";
}

static void write_when_set(FILE *file, const char *key)
{
	const char *value = zq_ini_str(key, NULL);
	if (value) {
		fprintf(file, "%s=%s\n", key, value);
	}
}

static void write_daemon_config(FILE *file, const char *prefix)
{
	static const struct {
		const char *key, *file_name;
	} files[] = {
		{"zqs.agent_log_file_name", ZQ_AGENT_LOG},
		{"zqs.daemon_log_file_name", "daemon.log"},
		{"zqs.pid_file", "quorbit.pid"},
		{"zqs.ipc_listen_file", ZQ_DAEMON_SOCKET},
	};
	fprintf(file, "zqs.ssl=%s\n", true_or_false("zqs.ssl"));
	fprintf(file, "zqs.audit_mode=%s\n", true_or_false("zqs.audit_mode"));
	fprintf(file, "zqs.daemon_log_level=%s\n", zq_ini_level("zqs.daemon_log_level"));
	fprintf(file, "zqs.action_tracer.log_sql=%s\n", true_or_false("zqs.action_tracer.log_sql"));
	for (const auto &row : files) {
		char path[300]; /* below the same root as the configuration's, of 255 bytes at most */
		zq_runtime_path(path, sizeof(path), row.file_name);
		fprintf(file, "%s=%s\n", row.key, path);
	}
	if (zq_ini_str("zqs.host", NULL)) {
		write_when_set(file, "zqs.host");
	} else { /* a configured host is a private collector, for which no certificate is named */
		fprintf(file, "zqs.cert_file=%s/lib/quorbit/ca-bundle.trust.crt\n", prefix);
	}
	write_when_set(file, "zqs.port");
	write_when_set(file, "zqs.proxy_host");
	write_when_set(file, "zqs.proxy_port");
	write_when_set(file, "zqs.proxy_user");
	write_when_set(file, "zqs.proxy_password");
}

/* An operator may have closed the file to others, since it can hold a password: the new one gets its mode. */
static void keep_mode(int fd, const char *path)
{
	struct stat old;
	if (lstat(path, &old) == 0 && S_ISREG(old.st_mode) && (old.st_uid == 0 || old.st_uid == geteuid())) {
		fchmod(fd, old.st_mode & 0777);
	}
}

/* Writes a new file and puts it in the old one's place: a daemon that another process starts meanwhile never reads half
 * of it, and nothing is written through a link or into a file that another account has put there. -1 with errno set. */
static int replace_daemon_config(const char *path, const char *prefix)
{
	char fresh[255 + 16];
	snprintf(fresh, sizeof(fresh), "%s.%d", path, (int)getpid());
	unlink(fresh); /* left by a process of that number */
	int fd = open(fresh, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
	FILE *file = fd != -1 ? fdopen(fd, "w") : NULL;
	if (!file) {
		return -1;
	}
	keep_mode(fd, path);
	write_daemon_config(file, prefix);
	if (fclose(file) == 0 && rename(fresh, path) == 0) {
		return 0;
	}
	int error = errno;
	unlink(fresh);
	errno = error;
	return -1;
}

/* system() with standard input, output and error on /dev/null: a missing command must not print into cron mail, pages
 * or pipes. Start-up of a process: no other thread of ours can be writing there. */
static int run_silently(const char *command)
{
	int kept[3];
	int null_fd = above_standard(open("/dev/null", O_RDWR | O_CLOEXEC));
	if (null_fd == -1) {
		return system(command);
	}
	for (int fd = 0; fd < 3; fd++) {
		kept[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
		dup2(null_fd, fd);
	}
	int result = system(command);
	for (int fd = 0; fd < 3; fd++) {
		if (kept[fd] != -1) {
			dup2(kept[fd], fd);
			close(kept[fd]);
		} else {
			close(fd); /* it was closed before */
		}
	}
	close(null_fd);
	return result;
}

int zq_daemon_start(int create_config TSRMLS_DC)
{
	char config_path[255];
	char command[512];
	const char *prefix = zq_ini_str("zqs.prefix", "/usr");
	int path_len = zq_runtime_path(config_path, sizeof(config_path), ".quorbit.cfg");
	int command_len = snprintf(command, sizeof(command), "%s/bin/quorbit -f %s", prefix, config_path);
	if (path_len >= (int)sizeof(config_path)) {
		ZQ_LOG(ZQ_LOG_WARNING, "write daemon config[%s] fail: %s", config_path, strerror(ENAMETOOLONG));
		return -1;
	}
	if (command_len >= (int)sizeof(command)) {
		ZQ_LOG(ZQ_LOG_WARNING, "start daemon[%s] fail: a command of %d bytes is longer than %zu", command, command_len,
			sizeof(command) - 1);
		return -1;
	}
	if (create_config && zq_file_may_grow(config_path) && replace_daemon_config(config_path, prefix) == -1) {
		ZQ_LOG(ZQ_LOG_WARNING, "write daemon config[%s] fail: %s", config_path, strerror(errno));
	}
	ZQ_LOG(ZQ_LOG_INFO, "start daemon: %s", command);
	return run_silently(command);
}
