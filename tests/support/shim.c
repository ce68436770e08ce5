/* Loaded in place of the extension, which it needs and therefore brings along: what the extension opens as /proc/meminfo
 * is the file that SHIM_MEMINFO names, and its monotonic clock is ahead by the seconds in the file that SHIM_CLOCK names,
 * or, with a "=" in front of them, so old at its first reading;
 * the processor's counter knows nothing of that, so the kernel seems not to trust it then. Either file may change at any
 * time. With SHIM_WALL set the wall clock is ahead by a year at one reading and behind by one at the next. With
 * SHIM_SIGSEGV set there is a handler of that signal before the extension's, with SHIM_INTERRUPT set a signal interrupts
 * its first connect. (The engine loads extensions with RTLD_DEEPBIND,
 * so that preloading would not reach them.) */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static int open_file(const char *path, int flags, int mode)
{
	return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

int open(const char *path, int flags, ...)
{
	const char *instead = getenv("SHIM_MEMINFO");
	va_list rest;
	va_start(rest, flags);
	int mode = flags & O_CREAT ? va_arg(rest, int) : 0;
	va_end(rest);
	if (getenv("SHIM_CLOCK") && strstr(path, "current_clocksource")) path = "/dev/null";
	return open_file(instead && !strcmp(path, "/proc/meminfo") ? instead : path, flags, mode);
}

static long wall_clock_is_ahead_by(void)
{
	static int readings;
	return !getenv("SHIM_WALL") ? 0 : ++readings % 2 ? 31536000 : -31536000;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
	int result = (int)syscall(SYS_clock_gettime, clock, now), fd;
	const char *path = getenv("SHIM_CLOCK");
	char text[32] = "";
	static time_t first;
	if (clock == CLOCK_REALTIME) now->tv_sec += wall_clock_is_ahead_by();
	if (clock == CLOCK_MONOTONIC && path && (fd = open_file(path, O_RDONLY, 0)) >= 0) {
		if (!first) first = now->tv_sec;
		if (read(fd, text, sizeof text - 1) > 0) now->tv_sec += *text == '=' ? atol(text + 1) - first : atol(text);
		close(fd);
	}
	return result;
}

int gettimeofday(struct timeval *now, void *zone)
{
	struct timespec precise;
	int result = clock_gettime(CLOCK_REALTIME, &precise);
	(void)zone;
	*now = (struct timeval){precise.tv_sec, precise.tv_nsec / 1000};
	return result;
}

time_t time(time_t *now)
{
	struct timespec precise;
	clock_gettime(CLOCK_REALTIME, &precise);
	return now ? *now = precise.tv_sec : precise.tv_sec;
}

int connect(int sock, const struct sockaddr *address, socklen_t size)
{
	static int calls;
	int is_interrupted = getenv("SHIM_INTERRUPT") && !calls++;
	if (is_interrupted) errno = EINTR;
	return is_interrupted ? -1 : (int)syscall(SYS_connect, sock, address, size);
}

static void earlier_handler(int signal_number)
{
	(void)!write(2, signal_number == SIGSEGV ? "SEGV" : "?", signal_number == SIGSEGV ? 4 : 1);
}

__attribute__((constructor)) static void install_handler(void)
{
	if (getenv("SHIM_SIGSEGV")) signal(SIGSEGV, earlier_handler);
}
