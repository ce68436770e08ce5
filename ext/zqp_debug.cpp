/* The log: every message is one record, appended with one write to a file opened for it, so that records of all
 * processes and threads of a host can share the file. */
#include "zqp_debug.h"

#include <errno.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "zqp_state.h"
#include "zqp_lock.h"
#include "zqp_process_memory.h"
#include "zqprof_settings.h"

char *zqprof_ini_log_file;
int zqprof_ini_log_level;

static const rlim_t MOST_ADDED_AT_ONCE = 64 << 10; /* bytes; a record of the log, or the daemon's settings */

static long g_zone;           /* the host's own, as tzset() knows it: s west of UTC */
static int g_zone_has_summer; /* time */

/* ---- log --------------------------------------------------------------------------------------------------------- */

static const struct {
	const char *name;
	int level;
} level_names[] = {
	{"WARNING", ZQ_LOG_WARNING},
	{"INFO", ZQ_LOG_INFO},
	{"DEBUG", ZQ_LOG_DEBUG},
	{"OFF", ZQ_LOG_OFF},
	{"CRITICAL", ZQ_LOG_CRITICAL},
	{"ERROR", ZQ_LOG_ERROR},
	{"VERBOSE", ZQ_LOG_VERBOSE},
};

int zq_get_level_by_name(const char *name)
{
	for (const auto &row : level_names) {
		if (name && strcasecmp(name, row.name) == 0) {
			return row.level;
		}
	}
	return ZQ_LOG_OFF;
}

const char *get_log_level_name(int level)
{
	for (const auto &row : level_names) {
		if (row.level == level && level != ZQ_LOG_OFF) {
			return row.name;
		}
	}
	return "";
}

void zq_log_init(TSRMLS_D)
{
	size_t size = (size_t)zq_runtime_path(NULL, 0, ZQ_AGENT_LOG) + 1;
	zqprof_ini_log_file = (char *)malloc(size);
	if (!zqprof_ini_log_file) {
		fputs("Out of memory\n", stderr);
		exit(1);
	}
	zq_runtime_path(zqprof_ini_log_file, size, ZQ_AGENT_LOG);
	tzset();
	g_zone = timezone;
	g_zone_has_summer = daylight;
	zqprof_ini_log_level = zq_get_level_by_name(zq_ini_level("zqs.agent_log_level"));
}

void zq_log_final(void)
{
	free(zqprof_ini_log_file);
	zqprof_ini_log_file = NULL;
	zqprof_ini_log_level = ZQ_LOG_OFF;
}

/* A script's putenv("TZ=...") moves the local time of all threads: what it was before counts meanwhile. */
static struct tm host_time(time_t now)
{
	static long utc_offset; /* s */
	struct tm local;
	localtime_r(&now, &local);
	if (timezone == g_zone && daylight == g_zone_has_summer) {
		utc_offset = local.tm_gmtoff;
		return local;
	}
	now += utc_offset;
	gmtime_r(&now, &local);
	return local;
}

void zq_log_newline(FILE *stream, int level)
{
	struct timeval now;
	gettimeofday(&now, NULL);
	struct tm local = host_time(now.tv_sec);
	fprintf(stream, "\n%04d-%02d-%02d %02d:%02d:%02d.%03d (tid:%d,uid:%d) %s: ", local.tm_year + 1900, local.tm_mon + 1,
		local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, (int)(now.tv_usec / 1000), (int)syscall(SYS_gettid),
		(int)getuid(), get_log_level_name(level));
}

/* A link in the log's place is followed when root or we made it: operators redirect logs. Any other would have us
 * append to a file of somebody else's choice, and as root hand it to everybody. Called from the crash handler as well.
 */
static int open_link_target(const char *path, int flags)
{
	char folder[1024], target[1024];
	struct stat status;
	const char *name = strrchr(path, '/');
	size_t folder_len = name ? (size_t)(name + 1 - path) : sizeof(folder);
	if (folder_len >= sizeof(folder)) {
		return -1;
	}
	memcpy(folder, path, folder_len);
	folder[folder_len] = '\0';
	int link = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
	int trusted = link != -1 && fstat(link, &status) == 0 && (status.st_uid == 0 || status.st_uid == geteuid());
	ssize_t len = trusted ? readlinkat(link, "", target, sizeof(target)) : -1;
	close(link);
	if (len <= 0 || len == (ssize_t)sizeof(target)) {
		return -1;
	}
	target[len] = '\0';
	int folder_fd = open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
	int fd = openat(folder_fd, target, flags, 0666);
	close(folder_fd);
	return fd;
}

/* A signal may interrupt the first attempt. Nothing that lies in the log's place may hold the process up, and a pipe
 * without a reader would. */
int zq_open_log(const char *path, int create)
{
	int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | create;
	int fd = open(path, flags | O_NOFOLLOW, 0666);
	if (fd == -1 && errno == EINTR) {
		fd = open(path, flags | O_NOFOLLOW, 0666);
	}
	return fd == -1 && errno == ELOOP ? open_link_target(path, flags) : fd;
}

void zq_log_share(void)
{
	struct stat status;
	int fd = zq_open_log(zqprof_ini_log_file, 0);
	if (fd == -1) {
		return;
	}
	/* a file with a second name may be another's, linked into the folder */
	if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
		fchmod(fd, 0666);
	}
	close(fd);
}

/* Text that came from outside must not look like a record of its own, nor command the terminal that shows it: control
 * characters, those of UTF-8 (C2 80 to C2 9F) too, become spaces. A line break at the end is the message's own. */
static void blank_control_characters(char *text, size_t len)
{
	for (size_t i = 0; i + 1 < len; i++) {
		if ((unsigned char)text[i] < 32 || text[i] == 127) {
			text[i] = ' ';
		} else if (text[i] == '\xC2' && (unsigned char)text[i + 1] >= 0x80 && (unsigned char)text[i + 1] < 0xA0) {
			text[i] = text[i + 1] = ' ';
		}
	}
}

static void write_record(int level, const char *format, va_list args)
{
	zq_written record;
	FILE *stream = zq_open_written(&record);
	if (!stream) {
		return;
	}
	zq_log_newline(stream, level);
	fflush(stream);
	size_t header_len = record.len;
	vfprintf(stream, format, args);
	fclose(stream);
	int fd = record.text ? zq_open_log(zqprof_ini_log_file, O_CREAT) : -1;
	if (fd != -1) {
		blank_control_characters(record.text + header_len, record.len - header_len);
		(void)!write(fd, record.text, record.len);
		close(fd);
	}
	free(record.text);
}

int zq_file_may_grow(const char *path)
{
	struct rlimit limit;
	struct stat status;
	if (getrlimit(RLIMIT_FSIZE, &limit) == -1 || limit.rlim_cur == RLIM_INFINITY) {
		return 1;
	}
	rlim_t size = stat(path, &status) == 0 && S_ISREG(status.st_mode) ? (rlim_t)status.st_size : 0;
	return limit.rlim_cur >= size + MOST_ADDED_AT_ONCE;
}

void zq_log_write(int level, const char *format, ...)
{
	if (!zqprof_ini_log_file || !zq_file_may_grow(zqprof_ini_log_file)) {
		return;
	}
	int saved_errno = errno;
	sigset_t saved_mask;
	va_list args;
	zq_hold_timers(&saved_mask);
	va_start(args, format);
	write_record(level, format, args);
	va_end(args);
	zq_allow_timers(&saved_mask);
	errno = saved_errno;
}
