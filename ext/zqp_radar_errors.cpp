/* Errors of PHP 5.6 that end a script in later versions, or do something else there. A script's own error handler takes
 * the place of the engine's callback: what it is given is not seen here. */
#include "zqp_radar.h"

namespace {

struct message_start {
	std::string_view start; /* of the engine's format, or of the text of an extension's message */
	std::string_view name;  /* of the rule */
};
constexpr message_start messages[] = {
	{"Non-static method %s::%s() should not be called statically", "static call of an instance method"},
	{"Use of undefined constant %s - assumed '%s'", "undefined constant"},
	{"Missing argument %u for ", "missing argument"},
	{"Division by zero", "division by zero"},
	{"Creating default object from empty value", "property of nothing"},
	{"%s%s%s() expects parameter %d to be %s, %s given", "wrong type of argument"},
	{"%s%s%s() expects %s %d parameter%s, %d given", "wrong number of arguments"},
	{"Declaration of %s::%s() should be compatible with %s", "incompatible declaration"},
	{"The /e modifier is deprecated", "modifier e"},
};
static_assert(
	[] {
		for (const message_start &message : messages) {
			if (!zq_radar_has_phrase(ZQ_SIGN_MESSAGE, message.name)) {
				return false;
			}
		}
		return true;
	}(),
	"a message has no rule");

/* A bit for each byte that one of them begins with. */
constexpr auto first_letters = [] {
	std::array<uint64_t, 4> letters{};
	for (const message_start &message : messages) {
		letters[(unsigned char)message.start[0] >> 6] |= uint64_t{1} << (message.start[0] & 63);
	}
	return letters;
}();

} // namespace

/* Extensions give the whole message as one text: "function(): message". */
static std::string_view text_of_message(const char *format, va_list args)
{
	if (strcmp(format, "%s") != 0) {
		return format;
	}
	va_list copy;
	va_copy(copy, args);
	const char *text = va_arg(copy, const char *);
	va_end(copy);
	const char *colon = text ? strstr(text, ": ") : NULL;
	return colon ? colon + 2 : "";
}

void zq_radar_error(int type, const char *file, uint line, const char *format, va_list args TSRMLS_DC)
{
	const int those = E_WARNING | E_NOTICE | E_STRICT | E_DEPRECATED;
	if (!(type & those) || !ZQG(radar_wanted) || !ZQG(radar) || !zq_is_watching(zq_globals(TSRMLS_C)) || !file) {
		return;
	}
	/* Extensions give their texts as "%s"; any other format is one message, of which this place is known. */
	bool is_the_text = strcmp(format, "%s") == 0;
	if (!is_the_text && zq_radar_has_raised(file, line, format TSRMLS_CC)) {
		return;
	}
	std::string_view text = text_of_message(format, args);
	if (text.empty() || !(first_letters[(unsigned char)text[0] >> 6] >> (text[0] & 63) & 1)) {
		return;
	}
	for (const message_start &message : messages) {
		if (text.starts_with(message.start)) {
			zq_radar_place place = {file, line, NULL};
			zq_radar_note(
				ZQ_SIGN_MESSAGE, message.name, (uintptr_t)message.name.data(), &place, ZQ_RADAR_RAN TSRMLS_CC);
			return;
		}
	}
}
