/* The agent's log and the backtrace that a segmentation fault leaves in it. Both work without any request state. */
#ifndef ZQP_DEBUG_H
#define ZQP_DEBUG_H

#include <signal.h>

#include "zqp_types.h"

enum zq_log_level {
	ZQ_LOG_OFF = 0,
	ZQ_LOG_CRITICAL = 1,
	ZQ_LOG_ERROR = 2,
	ZQ_LOG_WARNING = 3,
	ZQ_LOG_INFO = 4,
	ZQ_LOG_VERBOSE = 5,
	ZQ_LOG_DEBUG = 6
};

extern char *zqprof_ini_log_file; /* malloc'ed path; null outside start-up .. shut-down */
extern int zqprof_ini_log_level;

/* Writes one record when the level is wanted; the arguments are not evaluated otherwise. libc formats. */
#define ZQ_LOG(level, ...)                                 \
	do {                                                   \
		if (UNEXPECTED(zqprof_ini_log_level >= (level))) { \
			zq_log_write((level), __VA_ARGS__);            \
		}                                                  \
	} while (0)

/* Reads path and level from the settings. Ends the process with status 1 when the path cannot be allocated. */
void zq_log_init(TSRMLS_D);
/* Makes an existing log writable for every account (mode 0666): all that run PHP append to it. Neither this nor any
 * other opening of the log follows a link that is not root's or our own. */
void zq_log_share(void);
/* Frees the path; the log is silent afterwards. */
void zq_log_final(void);
/* Level for a name, ignoring case; 0 (silent) for an unknown one. */
int zq_get_level_by_name(const char *name);
/* Name of levels 1 to 6; "" for any other number. Static text. */
const char *get_log_level_name(int level);
/* Writes a record header to an open stream: line break, local time with ms, kernel thread id, real user id, level. */
void zq_log_newline(FILE *stream, int level);
/* 0 when the process's limit for the size of files leaves less than 64 KiB for this one (absent counts as empty): a
 * write beyond the limit would end the process with SIGXFSZ. */
int zq_file_may_grow(const char *path);
/* Appends one record to the log: opened, written at once and closed. A file that cannot be opened or grow drops the
 * message. errno is the same afterwards. Use ZQ_LOG. */
void zq_log_write(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Opens a log for appending and returns the descriptor, -1 with errno set. `create` is O_CREAT or 0. Async-signal-safe.
 */
int zq_open_log(const char *path, int create);

/* Installs the SIGSEGV handler that appends a backtrace to `file` (copied); only the first call in a process acts. */
void reg_dump(const char *file);
/* Runs before the backtrace is written, in the handler; null: nothing does. Set at module start-up. */
extern void (*zq_when_crashed)(int signal_number);
/* The handler: async-signal-safe calls only; hands the signal on and lets it end the process. */
void dump_handler(int signal_number, siginfo_t *info, void *context);

/* Gives the calling thread a stack for signal handlers, so that the backtrace can be written after its own stack is
 * exhausted. Returns what zq_close_signal_stack() takes; null when the thread has one already, or none is to be had. */
void *zq_open_signal_stack(void);
/* Takes it away again and unmaps it, if this is the thread that uses it; else it stays mapped. Null is fine. */
void zq_close_signal_stack(void *stack);

#endif
