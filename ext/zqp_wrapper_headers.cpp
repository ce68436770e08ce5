/* The caller's identity as text, alone and with the trace context. */
#include "zqp_wrapper_headers.h"

#include "zqp_trace_context.h"

namespace {

constexpr char IDENTITY_HEADER[] = "X-Vantor-Id: ";
constexpr char CONTEXT_HEADER[] = "\r\ntraceparent: ";

/* What follows the identity in a header of ours; null when it is not what follows it there. */
const char *context_of_header(const char *text)
{
	const char *line = strpbrk(text, "\r\n");
	size_t len = sizeof(CONTEXT_HEADER) - 1;
	return line && strncmp(line, CONTEXT_HEADER, len) == 0 && strlen(line + len) == ZQ_TRACEPARENT_LEN ? line + len
																									   : NULL;
}

} // namespace

/* The id may be a caller's: a line end in it would start a header of that caller's making. */
void zq_append_identity(smart_str *dest TSRMLS_DC)
{
	size_t start = dest->len;
	zq_append_text(dest, ZQG(vantor_id_secret));
	zq_append_text(dest, ";c=1;x=");
	zq_append_text(dest, ZQG(transaction_id));
	zq_str_replace_ln(zq_buffer_text(dest) + start);
}

zval *zq_identity_header(uint64 span TSRMLS_DC)
{
	smart_str line = {};
	zq_append_text(&line, IDENTITY_HEADER);
	zq_append_identity(&line TSRMLS_CC);
	if (span) {
		zq_append_text(&line, CONTEXT_HEADER);
		zq_append_traceparent(&line, zq_trace_context_of(TSRMLS_C), span TSRMLS_CC);
	}
	zval *header;
	MAKE_STD_ZVAL(header);
	int len = (int)line.len;
	ZVAL_STRINGL(header, zq_buffer_text(&line), len, 0);
	return header;
}

/* A script that forwards an id ends its line, and may go on. */
bool zq_is_identity_header(const zval *header TSRMLS_DC)
{
	if (Z_TYPE_P(header) != IS_STRING ||
		strncmp(Z_STRVAL_P(header), IDENTITY_HEADER, sizeof(IDENTITY_HEADER) - 1) != 0) {
		return false;
	}
	return !strpbrk(Z_STRVAL_P(header), "\r\n") || zq_span_of_header(header TSRMLS_CC);
}

uint64 zq_span_of_header(const zval *header TSRMLS_DC)
{
	const char *context = zq_trace_context_of(TSRMLS_C) && header && Z_TYPE_P(header) == IS_STRING
		? context_of_header(Z_STRVAL_P(header))
		: NULL;
	zq_traceparent parent;
	uint64 span = 0;
	if (context && zq_read_traceparent(context, &parent)) {
		memcpy(&span, parent.span_id, sizeof(span));
	}
	return span;
}
