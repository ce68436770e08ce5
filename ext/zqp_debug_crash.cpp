/* The crash handler: appends a backtrace to the log, with nothing but async-signal-safe calls, on a stack of its own,
 * since the one that crashed may be exhausted. */
#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "zqp_debug.h"
#include "zqp_process_memory.h"
#include "zqp_state.h"

static char *g_dump_file; /* a copy of its own, never freed: a crash may come after the log was closed */
static struct sigaction g_pre_handler;
void (*zq_when_crashed)(int signal_number);
static long g_dump_utc_offset; /* s; read when registering, since localtime is not safe in a handler */

/* A line put together in a handler: no libc formatting there. Texts are far below its size. */
struct crash_line {
	char text[192];
	size_t len;
};

static void add_text(crash_line *line, const char *text)
{
	for (; *text && line->len < sizeof(line->text); text++) {
		line->text[line->len++] = *text;
	}
}

static void add_number(crash_line *line, unsigned long number, int width)
{
	char digits[20];
	int n = 0;
	do {
		digits[n++] = (char)('0' + number % 10);
		number /= 10;
	} while (number && n < (int)sizeof(digits));
	for (int pad = n; pad < width; pad++) {
		add_text(line, "0");
	}
	while (n && line->len < sizeof(line->text)) {
		line->text[line->len++] = digits[--n];
	}
}

/* Date of a day number since 1970-01-01 (proleptic Gregorian calendar, years from March). */
static void add_date(crash_line *line, long days)
{
	long shifted = days + 719468;
	long era = shifted / 146097;
	long day_of_era = shifted - era * 146097;
	long year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
	long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
	long month_from_march = (5 * day_of_year + 2) / 153;
	long month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
	add_number(line, (unsigned long)(year_of_era + era * 400 + (month <= 2)), 4);
	add_text(line, "-");
	add_number(line, (unsigned long)month, 2);
	add_text(line, "-");
	add_number(line, (unsigned long)(day_of_year - (153 * month_from_march + 2) / 5 + 1), 2);
}

static void add_time(crash_line *line, const struct timespec *now)
{
	long seconds = (long)now->tv_sec + g_dump_utc_offset;
	long of_day = seconds % 86400;
	add_date(line, seconds / 86400);
	add_text(line, " ");
	add_number(line, (unsigned long)(of_day / 3600), 2);
	add_text(line, ":");
	add_number(line, (unsigned long)(of_day / 60 % 60), 2);
	add_text(line, ":");
	add_number(line, (unsigned long)(of_day % 60), 2);
	add_text(line, ".");
	add_number(line, (unsigned long)(now->tv_nsec / 1000000), 3);
}

/* Whether the kernel refused an access close to the stack pointer. What a function reserves in one step seldom exceeds
 * this distance. kill() sends no address. */
static bool is_stack_exhausted(const siginfo_t *info, const void *context)
{
#ifdef __x86_64__
	const uintptr_t near = 64 << 10; /* bytes */
	uintptr_t stack_pointer = (uintptr_t)((const ucontext_t *)context)->uc_mcontext.gregs[REG_RSP];
	uintptr_t address = (uintptr_t)info->si_addr;
	bool has_address = info->si_code == SEGV_MAPERR || info->si_code == SEGV_ACCERR;
	return has_address && address + near >= stack_pointer && address <= stack_pointer + near;
#else
	(void)info;
	(void)context;
	return false;
#endif
}

static void write_backtrace(int fd, bool stack_exhausted, void **frames, int count)
{
	crash_line banner = {};
	struct timespec now;
	clock_gettime(CLOCK_REALTIME, &now);
	add_text(&banner, "\n======== ");
	add_time(&banner, &now);
	add_text(&banner, " (pid:");
	add_number(&banner, (unsigned long)getpid(), 1);
	add_text(&banner, ",uid:");
	add_number(&banner, (unsigned long)getuid(), 1);
	add_text(&banner, ") SIGSEGV backtrace(" ZQ_PROTOCOL_VERSION ") ========\n");
	add_text(&banner, stack_exhausted ? "stack exhausted\n" : "");
	(void)!write(fd, banner.text, banner.len);
	for (int i = 1; i < count; i++) { /* the first frame is the handler itself */
		(void)!write(fd, "\t", 1);
		backtrace_symbols_fd(&frames[i], 1, fd);
	}
	static const char closing[] = "\n========== SIGSEGV ==========\n";
	(void)!write(fd, closing, sizeof(closing) - 1);
}

static void call_previous_handler(int signal_number, siginfo_t *info, void *context)
{
	if (g_pre_handler.sa_flags & SA_SIGINFO) {
		g_pre_handler.sa_sigaction(signal_number, info, context);
	} else if (g_pre_handler.sa_handler != SIG_DFL && g_pre_handler.sa_handler != SIG_IGN) {
		g_pre_handler.sa_handler(signal_number);
	}
}

void dump_handler(int signal_number, siginfo_t *info, void *context)
{
	static volatile sig_atomic_t entered;
	if (!entered) {
		entered = 1;
		if (zq_when_crashed) {
			zq_when_crashed(signal_number);
		}
		int fd = zq_open_log(g_dump_file, O_CREAT);
		if (fd != -1) {
			void *frames[100];
			write_backtrace(fd, is_stack_exhausted(info, context), frames, backtrace(frames, 100));
			close(fd);
		}
		call_previous_handler(signal_number, info, context);
	}
	/* Also after a previous handler that returned: the fault must end the process, and not enter here again. */
	signal(SIGSEGV, SIG_DFL);
	raise(SIGSEGV);
}

void reg_dump(const char *file)
{
	static int registered;
	if (!file || __atomic_exchange_n(&registered, 1, __ATOMIC_ACQ_REL)) {
		return;
	}
	void *frame[1];
	time_t now = time(NULL);
	struct tm local;
	backtrace(frame, 1); /* loads the unwinder's library now: not possible in the handler */
	localtime_r(&now, &local);
	g_dump_utc_offset = local.tm_gmtoff;
	g_dump_file = zq_strdup(file);
	if (!g_dump_file) {
		return;
	}
	struct sigaction ours = {};
	ours.sa_sigaction = dump_handler;
	ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
	sigaction(SIGSEGV, &ours, &g_pre_handler);
}

/* ---- stack of the handler ---------------------------------------------------------------------------------------- */

static const size_t SIGNAL_STACK_SIZE = 64 << 10; /* bytes; the kernel's frame and the unwinder take up to a quarter */
static const size_t GUARD_SIZE = 4096;            /* bytes below it, so that a handler that takes more ruins nothing */

void *zq_open_signal_stack(void)
{
	stack_t stack;
	if (sigaltstack(NULL, &stack) == -1 || !(stack.ss_flags & SS_DISABLE)) {
		return NULL;
	}
	char *mapping = (char *)mmap(NULL, GUARD_SIZE + SIGNAL_STACK_SIZE, PROT_NONE,
		MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
	if (mapping == MAP_FAILED) {
		return NULL;
	}
	stack = {};
	stack.ss_sp = mapping + GUARD_SIZE;
	stack.ss_size = SIGNAL_STACK_SIZE;
	if (mprotect(stack.ss_sp, SIGNAL_STACK_SIZE, PROT_READ | PROT_WRITE) == -1 || sigaltstack(&stack, NULL) == -1) {
		munmap(mapping, GUARD_SIZE + SIGNAL_STACK_SIZE);
		return NULL;
	}
	return mapping;
}

void zq_close_signal_stack(void *mapping)
{
	stack_t stack, none = {};
	none.ss_flags = SS_DISABLE;
	if (mapping && sigaltstack(NULL, &stack) == 0 && stack.ss_sp == (char *)mapping + GUARD_SIZE &&
		sigaltstack(&none, NULL) == 0) {
		munmap(mapping, GUARD_SIZE + SIGNAL_STACK_SIZE);
	}
}
