// Stands in for the engine below sources of the extension: its allocator on malloc, where the sanitizer sees overruns and
// leaks, and what little else they reach. Everything else of the engine has the address 0: to get there is a crash.
#include <sanitizer/asan_interface.h>

#include "zqp_state.h"

ts_rsrc_id zqprof_globals_id = 1;
int zqprof_ini_log_level = 0;

void zq_log_write(int, const char *, ...) {}

namespace {

// In front of every block, and out of bounds: a block that goes to the wrong allocator's free() is no block there.
constexpr size_t MARGIN = 16;

void *allocate(void *old, size_t count, size_t size, size_t offset)
{
	size_t total;
	if (__builtin_mul_overflow(count, size, &total) || __builtin_add_overflow(total, offset + MARGIN, &total)) {
		abort(); // the engine ends the request
	}
	if (old) {
		old = (char *)old - MARGIN;
		ASAN_UNPOISON_MEMORY_REGION(old, MARGIN);
	}
	char *block = (char *)realloc(old, total);
	if (!block) {
		abort();
	}
	ASAN_POISON_MEMORY_REGION(block, MARGIN);
	return block + MARGIN;
}

} // namespace

extern "C" {

void *_emalloc(size_t size) { return allocate(NULL, 1, size, 0); }
void *_safe_emalloc(size_t count, size_t size, size_t offset) { return allocate(NULL, count, size, offset); }
void *_safe_erealloc(void *old, size_t count, size_t size, size_t offset) { return allocate(old, count, size, offset); }

void _efree(void *block)
{
	char *start = (char *)block - MARGIN;
	ASAN_UNPOISON_MEMORY_REGION(start, MARGIN);
	free(start);
}

char *_estrndup(const char *text, uint len)
{
	char *copy = (char *)_emalloc((size_t)len + 1);
	memcpy(copy, text, len);
	copy[len] = '\0';
	return copy;
}

char *_estrdup(const char *text) { return _estrndup(text, (uint)strlen(text)); }

double zend_strtod(const char *text, const char **end)
{
	char *behind;
	double number = strtod(text, &behind);
	if (end) {
		*end = behind;
	}
	return number;
}

} // extern "C"
