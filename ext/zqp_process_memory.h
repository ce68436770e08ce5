/* Memory of the process rather than of a request, by functions of the extension's own. The engine loads extensions so
 * that their malloc() and free() are the C library's even where another allocator is preloaded (jemalloc, tcmalloc),
 * while functions inside the C library, and the engine, take the preloaded one's: what strdup(), open_memstream() or
 * the engine gave must not go to the extension's free(). */
#ifndef ZQP_PROCESS_MEMORY_H
#define ZQP_PROCESS_MEMORY_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* A copy of the first `len` bytes, or of those up to a NUL, for free(); null when memory is out. */
static inline char *zq_strndup(const char *text, size_t len)
{
	len = strnlen(text, len);
	char *copy = (char *)malloc(len + 1);
	if (copy) {
		memcpy(copy, text, len);
		copy[len] = '\0';
	}
	return copy;
}

static inline char *zq_strdup(const char *text)
{
	return zq_strndup(text, strlen(text));
}

/* What was written to a stream; `text`, for free(), has a NUL after `len` bytes, and is null as long as there are
 * none. */
typedef struct {
	char *text;
	size_t len;
} zq_written;

static inline ssize_t zq_keep_written(void *cookie, const char *data, size_t size)
{
	zq_written *written = (zq_written *)cookie;
	char *text = (char *)realloc(written->text, written->len + size + 1);
	if (!text) {
		return 0; /* an error of the stream */
	}
	memcpy(text + written->len, data, size);
	written->text = text;
	written->len += size;
	text[written->len] = '\0';
	return (ssize_t)size;
}

/* A stream into `written`, complete after fflush() or fclose(); null on failure. */
static inline FILE *zq_open_written(zq_written *written)
{
	cookie_io_functions_t functions = {NULL, zq_keep_written, NULL, NULL};
	*written = {NULL, 0};
	return fopencookie(written, "w", functions);
}

#endif
