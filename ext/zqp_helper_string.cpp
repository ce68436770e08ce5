/* Cutting, cleaning and comparing text. The rules that shape what is reported (what a statement may show, how a path
 * becomes a name) are exact; all of them go by ASCII, whatever locale the script has set. */
#include "zqp_helper.h"

#include <charconv>

#include <limits.h>
#include <time.h>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

void zq_append_long(smart_str *dest, long number)
{
	char text[24];
	zq_append(dest, text, (size_t)(std::to_chars(text, text + sizeof(text), number).ptr - text));
}

static bool is_digit(char ch)
{
	return ch >= '0' && ch <= '9';
}

/* ---- in place ---------------------------------------------------------------------------------------------------- */

void zq_str_replace_ln(char *str)
{
	for (; str && *str; str++) {
		if ((unsigned char)*str < ' ') {
			*str = ' ';
		}
	}
}

void zq_str_replace_to_dot(char *str)
{
	for (; str && *str; str++) {
		if (*str == '/' || *str == '\\') {
			*str = '.';
		}
	}
}

void zq_obfuscate_sql(char *sql)
{
	int single_quoted = 0, double_quoted = 0;
	for (; sql && *sql; sql++) {
		if (*sql == '\t' || *sql == '\n' || *sql == '\r') {
			*sql = ' ';
		} else if (*sql == '\'') {
			single_quoted = !single_quoted;
		} else if (*sql == '"') {
			double_quoted = !double_quoted;
		} else if (is_digit(*sql) || single_quoted || double_quoted) {
			*sql = '?';
		}
	}
}

/* ---- positions and header lines ---------------------------------------------------------------------------------- */

const char *zq_get_base_filename(const char *filename)
{
	if (!filename) {
		return "";
	}
	int slashes = 0;
	for (const char *at = filename + strlen(filename); at > filename; at--) {
		if (at[-1] == '/' && ++slashes == 2) {
			return at;
		}
	}
	return filename;
}

int get_header_content(const char *header)
{
	if (zq_strcasestr(header, "content-length:")) {
		return 0;
	}
	const char *type = zq_strcasestr(header, "content-type:");
	if (!type) {
		return -1;
	}
	return zq_strcasestr(type, "text/html") ? 1 : 0;
}

int get_header_status(const char *header)
{
	const char *at = zq_strcasestr(header, "http/1.");
	if (!at) {
		return 0;
	}
	while ((unsigned char)*at > ' ') {
		at++;
	}
	return zq_leading_int(at);
}

/* ---- ids ----------------------------------------------------------------------------------------------------------
 */

char *get_new_GUID(void)
{
	const size_t size = 2 * 8 + 1;
#if defined(__x86_64__) || defined(__i386__)
	uint64 stamp = __rdtsc();
#else
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	uint64 stamp = (uint64)now.tv_sec * 1000000000 + (uint64)now.tv_nsec;
#endif
	char *id = (char *)emalloc(size);
	snprintf(id, size, "%x%x", (unsigned)(stamp >> 32), (unsigned)stamp);
	return id;
}

char *get_string_param(const char *string, const char *param, char split)
{
	const char *value = string && param ? strstr(string, param) : NULL;
	if (!value) {
		return NULL;
	}
	value += strlen(param);
	const char *end = strchr(value, split);
	return end ? estrndup(value, end - value) : estrdup(value);
}

char *get_application_and_instance_id(const char *secret_id)
{
	const char *bar = secret_id ? strchr(secret_id, '|') : NULL;
	return bar ? estrdup(bar + 1) : NULL;
}

int is_same_account(const char *cur_secret_id, const char *parent_secret_id)
{
	const char *bar = cur_secret_id ? strchr(cur_secret_id, '|') : NULL;
	return bar && parent_secret_id && strncmp(cur_secret_id, parent_secret_id, bar - cur_secret_id) == 0;
}

/* ---- splitting ----------------------------------------------------------------------------------------------------
 */

cArray *get_c_array(const char *str, char split_char)
{
	if (!str || !*str) {
		return NULL;
	}
	const char separators[] = {split_char, '\0'};
	size_t most = 1;
	for (const char *at = str; (at = strpbrk(at, separators)) != NULL; at++) {
		most++;
	}
	cArray *array = (cArray *)safe_emalloc(most, sizeof(char *), sizeof(cArray));
	array->string = estrdup(str);
	array->length = 0;
	char *rest;
	for (char *piece = strtok_r(array->string, separators, &rest); piece; piece = strtok_r(NULL, separators, &rest)) {
		array->items[array->length++] = piece;
	}
	return array;
}

void free_c_array(cArray *array)
{
	if (array) {
		efree(array->string);
		efree(array);
	}
}

char **get_str_array(const char *str, int split_mode)
{
	static const char *const separators_of_mode[] = {"\t ,", "|", ",", " &[]", "&?"};
	const int modes = sizeof(separators_of_mode) / sizeof(*separators_of_mode);
	if (!str || !*str) {
		return NULL;
	}
	const char *separators = split_mode >= 0 && split_mode < modes ? separators_of_mode[split_mode] : "";
	std::string_view rest = str, piece;
	size_t count = 0;
	while (zq_next_piece(&rest, separators, &piece)) {
		count++;
	}
	char **array = (char **)safe_emalloc(count, sizeof(char *), sizeof(char *)), **at = array;
	for (rest = str; zq_next_piece(&rest, separators, &piece); at++) {
		*at = estrndup(piece.data(), (uint)piece.size());
	}
	*at = NULL;
	return array;
}

void free_str_array(char **array)
{
	for (char **at = array; at && *at; at++) {
		efree(*at);
	}
	if (array) {
		efree(array);
	}
}

/* ---- names and settings -------------------------------------------------------------------------------------------
 */

int in_urls_captured(const char *url, const char *patterns)
{
	cArray *lines = url ? get_c_array(patterns, '\n') : NULL;
	int found = 0;
	for (int i = 0; lines && i < lines->length && !found; i++) {
		found = zq_regex_matches(url, lines->items[i]);
	}
	free_c_array(lines);
	return found;
}

void zq_append_web(smart_str *action, const char *str)
{
	int slashes = 0;
	for (const char *at = str ? str : "";;) {
		size_t plain = strcspn(at, slashes > 2 ? "/?0123456789" : "/?");
		zq_append(action, at, plain);
		at += plain;
		if (*at == '/') {
			zq_append(action, "%2F", 3);
			slashes++;
			at++;
		} else if (is_digit(*at)) {
			size_t digits = strspn(at, "0123456789");
			zq_append_char(action, digits > 1 ? '*' : *at);
			at += digits;
		} else {
			return;
		}
	}
}

int zq_record_type_to_int(const char *str)
{
	if (zq_equals_ignoring_case(str, "raw")) {
		return 1;
	}
	return zq_equals_ignoring_case(str, "obfuscated") ? 2 : 0;
}
