/* The floor: an extension that only passes both execute hooks through. What it costs is the engine's own price for being
 * watched, and no part of ours. With EMPTY_HOOK_CLOCK in the environment it also reads a clock around each call, the least
 * that timing can cost: "tsc" the processor's time-stamp counter, anything else the kernel's clock. Built by
 * bench/instructions.py. */
#include <time.h>
#include <x86intrin.h>

#include "php.h"

static int reads_counter;
static volatile long last_us;

static zend_never_inline void read_clock(void)
{
	struct timespec now;
	if (reads_counter) {
		last_us = (long)__rdtsc();
		return;
	}
	clock_gettime(CLOCK_MONOTONIC, &now);
	last_us = now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static void (*next_execute)(zend_execute_data *execute_data TSRMLS_DC);
static void (*next_internal)(zend_execute_data *execute_data, struct _zend_fcall_info *fci, int used TSRMLS_DC);

static void pass_execute(zend_execute_data *execute_data TSRMLS_DC)
{
	next_execute(execute_data TSRMLS_CC);
}

static void pass_internal(zend_execute_data *execute_data, struct _zend_fcall_info *fci, int used TSRMLS_DC)
{
	if (next_internal) {
		next_internal(execute_data, fci, used TSRMLS_CC);
	} else {
		execute_internal(execute_data, fci, used TSRMLS_CC);
	}
}

static void timed_execute(zend_execute_data *execute_data TSRMLS_DC)
{
	read_clock();
	next_execute(execute_data TSRMLS_CC);
	read_clock();
}

static void timed_internal(zend_execute_data *execute_data, struct _zend_fcall_info *fci, int used TSRMLS_DC)
{
	read_clock();
	pass_internal(execute_data, fci, used TSRMLS_CC);
	read_clock();
}

static PHP_MINIT_FUNCTION(empty_hook)
{
	const char *clock_name = getenv("EMPTY_HOOK_CLOCK");
	reads_counter = clock_name && strcmp(clock_name, "tsc") == 0;
	next_execute = zend_execute_ex;
	next_internal = zend_execute_internal;
	zend_execute_ex = clock_name ? timed_execute : pass_execute;
	zend_execute_internal = clock_name ? timed_internal : pass_internal;
	return SUCCESS;
}

zend_module_entry empty_hook_module_entry = {
	STANDARD_MODULE_HEADER, "empty_hook", NULL, PHP_MINIT(empty_hook), NULL, NULL, NULL, NULL, "1", STANDARD_MODULE_PROPERTIES
};
ZEND_GET_MODULE(empty_hook)
