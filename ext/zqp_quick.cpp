/* Which functions cannot be slow, and why. */
#include "zqp_quick.h"

#include "zqp_name_table.h"

zq_quick_table zq_quick;

/* What has to hold beside the number and the types of the arguments. */
enum zq_quick_condition : unsigned char {
	ALWAYS, /* nothing */
	SHORT,  /* the texts have at most MOST_BYTES together */
	FULL,   /* the same, and none is empty */
	PLAIN,  /* the same, and none names something of a class */
	CALLED, /* a function runs */
};

struct zq_quick_row {
	zq_name name;
	unsigned char least, most;   /* arguments */
	unsigned short first, other; /* types of the first and of the others */
	zq_quick_condition condition;
};

namespace {

/* Sets of types. */
enum : unsigned short {
	NOTHING = 1 << IS_NULL,
	NUMBER = NOTHING | 1 << IS_LONG | 1 << IS_DOUBLE | 1 << IS_BOOL,
	TEXT = 1 << IS_STRING,
	SCALAR = NUMBER | TEXT,
	ARRAY = 1 << IS_ARRAY,
	OBJECT = 1 << IS_OBJECT,
	INDEX = NOTHING | 1 << IS_LONG | TEXT,
	ANY = SCALAR | ARRAY | OBJECT | 1 << IS_RESOURCE,
};

/* All texts of a short call together have at most so many bytes: even what compares each with each takes microseconds.
 */
constexpr int MOST_BYTES = 1024;

constexpr auto rows = std::to_array<zq_quick_row>({
	/* They look at a type, which no data changes. */
	{"is_null", 1, 1, ANY, 0, ALWAYS},
	{"is_bool", 1, 1, ANY, 0, ALWAYS},
	{"is_int", 1, 1, ANY, 0, ALWAYS},
	{"is_float", 1, 1, ANY, 0, ALWAYS},
	{"is_string", 1, 1, ANY, 0, ALWAYS},
	{"is_array", 1, 1, ANY, 0, ALWAYS},
	{"is_object", 1, 1, ANY, 0, ALWAYS},
	{"is_resource", 1, 1, ANY, 0, ALWAYS},
	{"is_scalar", 1, 1, ANY, 0, ALWAYS},
	{"gettype", 1, 1, ANY, 0, ALWAYS},
	{"get_class", 1, 1, OBJECT, 0, ALWAYS},

	/* They read a length, or move within an array, which is a list. Objects may answer by methods of their own. */
	{"strlen", 1, 1, SCALAR, 0, ALWAYS},
	{"count", 1, 1, ARRAY, 0, ALWAYS},
	{"current", 1, 1, ARRAY, 0, ALWAYS},
	{"key", 1, 1, ARRAY, 0, ALWAYS},
	{"next", 1, 1, ARRAY, 0, ALWAYS},
	{"prev", 1, 1, ARRAY, 0, ALWAYS},
	{"reset", 1, 1, ARRAY, 0, ALWAYS},
	{"end", 1, 1, ARRAY, 0, ALWAYS},

	/* One lookup in a table of the engine. A constant of a class may load the class first. */
	{"array_key_exists", 2, 2, INDEX, ARRAY, ALWAYS},
	{"function_exists", 1, 1, TEXT, 0, SHORT},
	{"extension_loaded", 1, 1, TEXT, 0, SHORT},
	{"method_exists", 2, 2, OBJECT, TEXT, SHORT},
	{"ini_get", 1, 1, TEXT, 0, SHORT},
	{"defined", 1, 1, TEXT, 0, PLAIN},

	/* Of the running call, or the process. Outside any function the first two warn. */
	{"func_num_args", 0, 0, 0, 0, CALLED},
	{"func_get_args", 0, 0, 0, 0, CALLED},
	{"time", 0, 0, 0, 0, ALWAYS},
	{"microtime", 0, 1, NUMBER, 0, ALWAYS},
	{"php_sapi_name", 0, 0, 0, 0, ALWAYS},
	{"phpversion", 0, 0, 0, 0, ALWAYS},
	{"memory_get_usage", 0, 1, NUMBER, 0, ALWAYS},
	{"memory_get_peak_usage", 0, 1, NUMBER, 0, ALWAYS},

	/* Arithmetic on machine words; texts that are no numbers would be warned of. */
	{"abs", 1, 1, NUMBER, 0, ALWAYS},
	{"ceil", 1, 1, NUMBER, 0, ALWAYS},
	{"floor", 1, 1, NUMBER, 0, ALWAYS},
	{"round", 1, 2, NUMBER, NUMBER, ALWAYS},
	{"sqrt", 1, 1, NUMBER, 0, ALWAYS},
	{"intval", 1, 1, SCALAR, 0, SHORT},
	{"floatval", 1, 1, SCALAR, 0, SHORT},
	{"strval", 1, 1, SCALAR, 0, SHORT},
	{"boolval", 1, 1, SCALAR, 0, ALWAYS},
	{"is_numeric", 1, 1, SCALAR, 0, SHORT},
	{"dechex", 1, 1, NUMBER, 0, ALWAYS},
	{"hexdec", 1, 1, TEXT, 0, SHORT},
	{"bindec", 1, 1, TEXT, 0, SHORT},
	{"octdec", 1, 1, TEXT, 0, SHORT},

	/* Linear in texts, which are short. */
	{"ord", 1, 1, SCALAR, 0, ALWAYS},
	{"chr", 1, 1, NUMBER, 0, ALWAYS},
	{"strtolower", 1, 1, SCALAR, 0, SHORT},
	{"strtoupper", 1, 1, SCALAR, 0, SHORT},
	{"ucfirst", 1, 1, SCALAR, 0, SHORT},
	{"lcfirst", 1, 1, SCALAR, 0, SHORT},
	{"ucwords", 1, 1, SCALAR, 0, SHORT},
	{"trim", 1, 1, SCALAR, 0, SHORT},
	{"ltrim", 1, 1, SCALAR, 0, SHORT},
	{"rtrim", 1, 1, SCALAR, 0, SHORT},
	{"substr", 2, 3, SCALAR, NUMBER, SHORT},
	{"strcmp", 2, 2, SCALAR, SCALAR, SHORT},
	{"strcasecmp", 2, 2, SCALAR, SCALAR, SHORT},
	{"strrchr", 2, 2, SCALAR, SCALAR, SHORT},
	{"strrev", 1, 1, SCALAR, 0, SHORT},
	{"addslashes", 1, 1, SCALAR, 0, SHORT},
	{"stripslashes", 1, 1, SCALAR, 0, SHORT},
	{"bin2hex", 1, 1, SCALAR, 0, SHORT},
	{"md5", 1, 2, SCALAR, NUMBER, SHORT},
	{"sha1", 1, 2, SCALAR, NUMBER, SHORT},
	{"crc32", 1, 1, SCALAR, 0, SHORT},
	{"base64_encode", 1, 1, SCALAR, 0, SHORT},
	{"base64_decode", 1, 1, SCALAR, 0, SHORT},
	{"urlencode", 1, 1, SCALAR, 0, SHORT},
	{"urldecode", 1, 1, SCALAR, 0, SHORT},
	{"rawurlencode", 1, 1, SCALAR, 0, SHORT},
	{"rawurldecode", 1, 1, SCALAR, 0, SHORT},
	{"dirname", 1, 1, SCALAR, 0, SHORT},
	{"basename", 1, 1, SCALAR, 0, SHORT},
	{"version_compare", 2, 3, SCALAR, SCALAR, SHORT},
	{"ctype_alnum", 1, 1, TEXT, 0, SHORT},
	{"ctype_alpha", 1, 1, TEXT, 0, SHORT},
	{"ctype_digit", 1, 1, TEXT, 0, SHORT},
	{"ctype_lower", 1, 1, TEXT, 0, SHORT},
	{"ctype_space", 1, 1, TEXT, 0, SHORT},
	{"ctype_upper", 1, 1, TEXT, 0, SHORT},
	{"ctype_xdigit", 1, 1, TEXT, 0, SHORT},

	/* The same; of an empty one they warn. */
	{"strpos", 2, 2, TEXT, TEXT, FULL},
	{"stripos", 2, 2, TEXT, TEXT, FULL},
	{"strrpos", 2, 2, TEXT, TEXT, FULL},
	{"strstr", 2, 2, TEXT, TEXT, FULL},
	{"stristr", 2, 2, TEXT, TEXT, FULL},
	{"explode", 2, 2, TEXT, TEXT, FULL},
});
constexpr auto row_index = zq_index_names(rows);

/* The engine's own modules; whoever registers a function of one of these names elsewhere has it timed. */
const char *const modules[] = {"core", "standard", "ctype", "date"};

struct found_function {
	zq_handler handler;
	unsigned row;
};

/* Puts all into slots of their own, none into slot 0; false when two would share one under that multiplier. */
bool place(const found_function *found, size_t count, uint64 multiplier)
{
	memset(zq_quick.slots, 0, sizeof(zq_quick.slots));
	for (size_t i = 0; i < count; i++) {
		size_t hash = ((uint64)(uintptr_t)found[i].handler * multiplier) >> (64 - ZQ_QUICK_BITS);
		if (!hash || zq_quick.slots[hash].handler) {
			return false;
		}
		const zq_quick_row *row = &rows[found[i].row];
		bool needs_more = row->condition != ALWAYS || row->least != 1 || row->most != 1;
		zq_quick.slots[hash] = {found[i].handler, needs_more ? 0u : row->first, found[i].row};
	}
	return true;
}

/* The functions of that module that have a row; gives how many of `found` are filled then. */
size_t find_functions(const zend_module_entry *module, found_function *found, size_t count)
{
	for (const zend_function_entry *function = module->functions; function && function->fname; function++) {
		int length = (int)strlen(function->fname);
		uint64 hash = zq_name_hash(function->fname, (size_t)length);
		const zq_quick_row *row = zq_find_row(rows, row_index, hash, function->fname, length);
		if (row && function->handler && count < rows.size()) {
			found[count++] = {function->handler, (unsigned)(row - rows.data())};
		}
	}
	return count;
}

uint64 multiplier_of_all;        /* under which the slots are filled */
std::atomic<uint64> profiled_to; /* s of the monotonic clock; 0: no profile runs */

} // namespace

void zq_quick_init(void)
{
	found_function found[rows.size()];
	size_t count = 0;
	for (const char *name : modules) {
		zend_module_entry *module = NULL;
		if (zend_hash_find(&module_registry, name, (uint)strlen(name) + 1, (void **)&module) == SUCCESS) {
			count = find_functions(module, found, count);
		}
	}
	uint64 seed = 0x9E3779B97F4A7C15u;
	for (int attempt = 0; attempt < 20000; attempt++, seed = seed * 6364136223846793005u + 1442695040888963407u) {
		if (place(found, count, seed | 1)) {
			multiplier_of_all = seed | 1;
			break;
		}
	}
	zq_quick.multiplier = multiplier_of_all;
}

void zq_quick_wait_for_profile(uint64 profile_end_s, uint64 now_s)
{
	if (profile_end_s > profiled_to) {
		profiled_to = profile_end_s;
		zq_quick.multiplier = 0;
	} else if (profiled_to && profiled_to < now_s) {
		profiled_to = 0;
		zq_quick.multiplier = multiplier_of_all;
	}
}

int zq_quick_arguments(const zq_quick_slot *slot, const zend_execute_data *frame)
{
	const zq_quick_row *row = &rows[slot->row];
	void **top = frame->function_state.arguments;
	size_t count = (size_t)(uintptr_t)*top;
	if (count < row->least || count > row->most) {
		return 0; /* it is going to warn */
	}
	if (row->condition == CALLED) {
		return frame->prev_execute_data && frame->prev_execute_data->function_state.arguments;
	}
	int bytes = 0;
	for (size_t i = 0; i < count; i++) {
		const zval *argument = (const zval *)top[(ptrdiff_t)i - (ptrdiff_t)count];
		if (!((i ? row->other : row->first) >> Z_TYPE_P(argument) & 1)) {
			return 0;
		}
		if (Z_TYPE_P(argument) != IS_STRING) {
			continue;
		}
		if ((row->condition == FULL && !Z_STRLEN_P(argument)) || Z_STRLEN_P(argument) > MOST_BYTES - bytes) {
			return row->condition == ALWAYS;
		}
		bytes += Z_STRLEN_P(argument);
		if (row->condition == PLAIN && memchr(Z_STRVAL_P(argument), ':', (size_t)Z_STRLEN_P(argument))) {
			return 0;
		}
	}
	return 1;
}
