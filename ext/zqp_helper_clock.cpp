/* Samplers of what the kernel knows about the process and the host. */
#include "zqp_helper.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>

#include "zqp_debug.h"

int zq_thread_id(void)
{
	return (int)syscall(SYS_gettid);
}

/* Reads up to `size` - 1 bytes of a file in one call and NUL-terminates them: none when that fails. The count, or -1
 * with errno set for a file that cannot be opened. */
static ssize_t read_once(const char *path, char *text, size_t size)
{
	int fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd == -1) {
		return -1;
	}
	ssize_t len = read(fd, text, size - 1);
	close(fd);
	text[len > 0 ? len : 0] = '\0';
	return len > 0 ? len : 0;
}

/* Fields of proc(5), which counts from 1; the numbers up to the last that is wanted. */
enum { NAME = 2, STATE = 3, USER_TICKS = 14, SYSTEM_TICKS = 15, RESIDENT_PAGES = 24, FIELDS };

/* 0, or -1 where a number is missing: at the end of the text, or because spaces in the name have shifted the fields. */
static int read_fields(const char *at, size_t len, int64_t (&fields)[FIELDS])
{
	const char *end = at + len;
	for (int i = 1; i < FIELDS; i++) {
		at += strspn(at, " ");
		if (i == NAME || i == STATE) {
			at += strcspn(at, " ");
			continue;
		}
		auto [after, error] = std::from_chars(at, end, fields[i]);
		if (error != std::errc()) {
			return -1;
		}
		at = after;
	}
	return 0;
}

int zq_read_stat(int pid, uint64 *user_ticks, uint64 *system_ticks, long *resident_pages)
{
	char path[32], line[1024];
	snprintf(path, sizeof(path), "/proc/%d/stat", pid);
	ssize_t len = read_once(path, line, sizeof(line));
	if (len == -1) {
		ZQ_LOG(ZQ_LOG_ERROR, "open %s fail: %s", path, strerror(errno));
		return -1;
	}
	int64_t fields[FIELDS];
	if (read_fields(line, (size_t)len, fields) != 0) {
		return -1;
	}
	*user_ticks = (uint64)fields[USER_TICKS];
	*system_ticks = (uint64)fields[SYSTEM_TICKS];
	*resident_pages = (long)fields[RESIDENT_PAGES];
	return 0;
}

int get_usage(int pid, uint64 *cpu, long *mem)
{
	uint64 user, system;
	long resident_pages;
	if (zq_read_stat(pid, &user, &system, &resident_pages) != 0) {
		return -1;
	}
	if (mem) {
		*mem = sysconf(_SC_PAGESIZE) * resident_pages / 1024;
	}
	if (cpu) {
		*cpu = user + system;
	}
	return 0;
}

int zq_memory_used_of(const char *meminfo)
{
	uint64 total = 0, free_kib = 0, available_x100 = 0;
	const char *line = meminfo ? meminfo : "";
	for (const char *end; (end = strchr(line, '\n')) != NULL; line = end + 1) {
		const char *colon = (const char *)memchr(line, ':', end - line);
		if (!colon) {
			break;
		}
		size_t key_len = colon - line;
		uint64 value = strtoull(colon + 1, NULL, 10);
		auto key_is = [&](const char *key) { return key_len == strlen(key) && memcmp(line, key, key_len) == 0; };
		if (key_is("MemTotal") && !total) {
			total = value;
		} else if (key_is("MemFree") && !free_kib) {
			free_kib = value;
		} else if (key_is("MemAvailable")) {
			available_x100 = value * 100;
			break;
		} else if (key_is("Inactive")) { /* kernels before 3.14 do not work the figure out themselves */
			available_x100 = (value + free_kib) * 100;
			break;
		}
	}
	if (!total) {
		ZQ_LOG(ZQ_LOG_ERROR, "read /proc/meminfo fail");
		return 0;
	}
	return (int)(100 - (int64_t)(available_x100 / total));
}

int get_memory_used(void)
{
	char text[512];
	if (read_once("/proc/meminfo", text, sizeof(text)) == -1) {
		ZQ_LOG(ZQ_LOG_ERROR, "open /proc/meminfo fail: %s", strerror(errno));
		return 0;
	}
	return zq_memory_used_of(text);
}

/* The number that a text's digits make when everything between them is left out; the largest one on overflow. */
static int64_t number_of_digits(const char *text)
{
	int64_t number = 0;
	for (; *text; text++) {
		int digit = *text - '0';
		if (digit < 0 || digit > 9) {
			continue;
		}
		if (number > (INT64_MAX - digit) / 10) {
			return INT64_MAX;
		}
		number = number * 10 + digit;
	}
	return number;
}

int get_block_time(const char *queue_start, uint64 ms)
{
	if (!queue_start) {
		return 0;
	}
	int64_t stamp = 0;
	if (strlen(queue_start) > 2) {
		if (queue_start[0] == 't') {
			stamp = strtoll(queue_start + 2, NULL, 10);
		} else if (queue_start[0] == 's') {
			stamp = number_of_digits(queue_start + 2);
		}
	}
	/* 32 bits, no scaling, no conversion between clocks: the figure that the receiver is made for */
	int32_t wait_ms = (int32_t)((uint32_t)ms - (uint32_t)stamp);
	return wait_ms < 0 ? 0 : wait_ms;
}
