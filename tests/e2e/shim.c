/* Preloaded into an engine: /proc/meminfo is the file that SHIM_MEMINFO names, and the monotonic clock is ahead by the
 * seconds in the file that SHIM_CLOCK names. Either file may be missing or change at any time. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const char *real_path(const char *path)
{
	const char *instead = getenv("SHIM_MEMINFO");
	return instead && path && !strcmp(path, "/proc/meminfo") ? instead : path;
}

#define OPEN(name) \
	int name(const char *path, int flags, ...) \
	{ \
		va_list rest; \
		va_start(rest, flags); \
		int mode = va_arg(rest, int); \
		va_end(rest); \
		return (int)syscall(SYS_openat, AT_FDCWD, real_path(path), flags, mode); \
	}
OPEN(open)
OPEN(open64)

#define FOPEN(name) \
	FILE *name(const char *path, const char *mode) \
	{ \
		FILE *(*next)(const char *, const char *) = (FILE * (*)(const char *, const char *))dlsym(RTLD_NEXT, #name); \
		return next(real_path(path), mode); \
	}
FOPEN(fopen)
FOPEN(fopen64)

int clock_gettime(clockid_t clock, struct timespec *now)
{
	int result = (int)syscall(SYS_clock_gettime, clock, now), fd;
	const char *path = getenv("SHIM_CLOCK");
	char text[32] = "";
	if (clock == CLOCK_MONOTONIC && path && (fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDONLY)) >= 0) {
		if (read(fd, text, sizeof text - 1) > 0) now->tv_sec += atol(text);
		close(fd);
	}
	return result;
}
