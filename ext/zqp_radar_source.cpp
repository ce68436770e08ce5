/* The text of a file that was compiled, read once for what its opcodes do not show. It is read anew: neither a cache of
 * compiled files nor the engine has it any more. */
#include <fcntl.h>
#include <sys/stat.h>

#include "zqp_lock.h"
#include "zqp_radar.h"
#include "zqp_radar_text.h"

namespace {

constexpr off_t MOST_TEXT = 4 << 20;

/* Of one file. */
struct source {
	const char *file;
	zq_radar_tables before;
};

/* The function that the line is in, the innermost one. */
struct search {
	const char *file;
	uint line;
	const zend_op_array *found;
};

void look_at(search *wanted, const zend_function *function)
{
	const zend_op_array *code = &function->op_array;
	if (function->type == ZEND_USER_FUNCTION && code->line_start <= wanted->line && wanted->line <= code->line_end &&
		code->filename && strcmp(code->filename, wanted->file) == 0 &&
		(!wanted->found || wanted->found->line_start <= code->line_start)) {
		wanted->found = code;
	}
}

const zend_op_array *function_at(const source *of, uint line TSRMLS_DC)
{
	search wanted = {of->file, line, NULL};
	zq_radar_each_new(CG(function_table), of->before.functions,
		[&wanted](const Bucket *at) { look_at(&wanted, (const zend_function *)at->pData); });
	zq_radar_each_new(CG(class_table), of->before.classes, [&wanted](const Bucket *at) {
		const zend_class_entry *ce = *(zend_class_entry **)at->pData;
		if (ce->type != ZEND_USER_CLASS) {
			return;
		}
		for (const Bucket *method = ce->function_table.pListHead; method; method = method->pListNext) {
			look_at(&wanted, (const zend_function *)method->pData);
		}
	});
	return wanted.found;
}

void note_construct(void *context, std::string_view name, unsigned line)
{
	const source *of = (const source *)context;
	TSRMLS_FETCH();
	zq_radar_place place = {of->file, line, function_at(of, line TSRMLS_CC)};
	zq_radar_note_compiled(ZQ_SIGN_SYNTAX, name, &place TSRMLS_CC);
}

/* The whole file, which the caller frees; null when it is no plain file, or too large. */
char *read_whole(const char *path, size_t *size)
{
	struct stat status;
	char *text = NULL;
	int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
	*size = 0;
	if (file == -1) {
		return NULL;
	}
	if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 && status.st_size <= MOST_TEXT) {
		text = (char *)malloc((size_t)status.st_size);
	}
	ssize_t got = 1;
	while (text && got > 0 && *size < (size_t)status.st_size) {
		got = read(file, text + *size, (size_t)status.st_size - *size);
		*size += got > 0 ? (size_t)got : 0;
	}
	close(file);
	return text;
}

} // namespace

/* Held timers: a time limit must not leave a descriptor open, nor the C library's heap in the middle of its work. */
size_t zq_radar_read_source(const char *file, zq_radar_tables before TSRMLS_DC)
{
	sigset_t timers;
	size_t size = 0;
	if (*file != '/') { /* of a stream wrapper, or of no file */
		return 0;
	}
	source of = {file, before};
	zq_hold_timers(&timers);
	char *text = read_whole(file, &size);
	if (text) {
		zq_radar_tags tags = {CG(short_tags) != 0, CG(asp_tags) != 0};
		zq_radar_read_text({text, size}, tags, note_construct, &of);
		free(text);
	}
	zq_allow_timers(&timers);
	return size;
}
