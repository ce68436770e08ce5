/* Insertion of the browser script. A page is searched chunk by chunk, each byte at most once and none beyond the first
 * 65,536: an html tag must have been seen, then the end of the title or of the head is the place. */
#include "zqp_rum.h"
#include "zqp_io.h"

static const size_t MAX_EXAMINED = 65536;

/* 1 when the text at `at` begins with `word`, lower-case letters, in any case. */
static int begins_with(const char *at, const char *end, const char *word, size_t word_len)
{
	return (size_t)(end - at) >= word_len && zq_strncasecmp(at, word, word_len) == 0;
}

static const char *end_of_search(const char *buf, size_t length)
{
	return buf + (length < MAX_EXAMINED ? length : MAX_EXAMINED);
}

/* The next "<" at or behind `at`, or null. */
static const char *next_tag(const char *at, const char *end)
{
	return at < end ? (const char *)memchr(at, '<', (size_t)(end - at)) : NULL;
}

const char *html_pos(const char *buf, size_t length)
{
	const char *end = end_of_search(buf, length);
	for (const char *at = next_tag(buf, end); at; at = next_tag(at + 1, end)) {
		const char *behind = at + sizeof("<html") - 1;
		if (!begins_with(at, end, ZEND_STRL("<html")) || behind == end) {
			continue;
		}
		if (*behind == '>') {
			return behind;
		}
		if (*behind == '\t' || *behind == '\n' || *behind == '\r' || *behind == ' ') {
			return (const char *)memchr(behind, '>', (size_t)(end - behind)); /* no other tag ends either, if null */
		}
	}
	return NULL;
}

const char *rum_pos(const char *buf, size_t length)
{
	const char *end = end_of_search(buf, length);
	for (const char *at = next_tag(buf, end); at; at = next_tag(at + 1, end)) {
		if (begins_with(at, end, ZEND_STRL("</head>"))) {
			return at;
		}
		if (begins_with(at, end, ZEND_STRL("</title>"))) {
			return at + sizeof("</title>") - 1;
		}
	}
	return NULL;
}

/* The name can come from the client's URI: what could end the string or the script is written as an escape. */
static void append_script_text(smart_str *out, const char *text)
{
	for (; text && *text; text++) {
		unsigned char ch = (unsigned char)*text;
		if (ch < 32 || strchr("'\\<>", ch)) {
			char escape[8];
			snprintf(escape, sizeof(escape), "\\u%04x", ch);
			zq_append(out, escape, 6);
		} else {
			zq_append_char(out, *text);
		}
	}
}

int buildScript(const char *script, smart_str *out TSRMLS_DC)
{
	const char *last_brace = script ? strrchr(script, '}') : NULL;
	if (!last_brace) {
		return 0;
	}
	zq_append_text(out, "<script>");
	zq_append(out, script, (size_t)(last_brace - script));
	zq_append_text(out, "qv_rum.agent={id:'");
	char *id = get_application_and_instance_id(ZQG(vantor_id_secret));
	if (id) {
		zq_append_text(out, id);
		efree(id);
	}
	zq_append_text(out, "',n:'");
	append_script_text(out, ZQG(action_name));
	zq_append_text(out, "',tid:'");
	zq_append_text(out, zq_tracer_id(TSRMLS_C));
	zq_append_text(out, "',q:");
	zq_append_long(out, ZQG(block_duration));
	zq_append_text(out, ",a:");
	zq_append_long(out, (long)((cycle_timer() - ZQG(rinit_tick)) / 1000));
	zq_append_text(out, "};");
	zq_append_text(out, last_brace);
	zq_append_text(out, "</script>");
	return 1;
}

static int page_wants_script(TSRMLS_D)
{
	return ZQG(agent_enabled) && ZQG(rum_enabled) && ZQG(rum_script);
}

/* Where the element goes in this piece of the page, or null. Remembers an html tag for the pieces to come. */
static const char *insertion_point(const char *piece, size_t length TSRMLS_DC)
{
	if (ZQG(rum_flag) < 1 && html_pos(piece, length)) {
		ZQG(rum_flag) = 1;
	}
	return ZQG(rum_flag) == 1 ? rum_pos(piece, length) : NULL;
}

/* Under CGI and FPM the response headers pass through the writer too, each in a chunk of its own that is the header's
 * very text. They are no part of the page. */
static int is_response_header(const char *chunk TSRMLS_DC)
{
	if (!SG(headers_sent)) {
		return 0;
	}
	if (SG(sapi_headers).http_status_line) {
		return 1; /* freed when the headers are out */
	}
	for (zend_llist_element *at = SG(sapi_headers).headers.head; at; at = at->next) {
		if (((sapi_header_struct *)at->data)->header == chunk) {
			return 1;
		}
	}
	return 0;
}

/* Writes the chunk with the element in it; 1, or 0 with nothing written when this is not the place. */
static int write_with_script(const char *str, unsigned int length TSRMLS_DC)
{
	const char *at = insertion_point(str, length TSRMLS_CC);
	smart_str element = {NULL, 0, 0};
	if (!at || !buildScript(ZQG(rum_script), &element TSRMLS_CC)) {
		return 0;
	}
	ZQG(rum_enabled) = 0; /* before the writes: the client may be gone, and that ends the script here */
	unsigned int before = (unsigned int)(at - str);
	if (before > 0) {
		_sapi_ub_write(str, before TSRMLS_CC);
	}
	_sapi_ub_write(element.c, (unsigned int)element.len TSRMLS_CC);
	if (length > before) {
		_sapi_ub_write(at, length - before TSRMLS_CC);
	}
	zq_buffer_free(&element);
	return 1;
}

int zq_ub_write(const char *str, unsigned int length TSRMLS_DC)
{
	if (EXPECTED(!g_module_up || !page_wants_script(TSRMLS_C)) || is_response_header(str TSRMLS_CC)) {
		return _sapi_ub_write(str, length TSRMLS_CC);
	}
	if (ZQG(rum_write_length) < MAX_EXAMINED && write_with_script(str, length TSRMLS_CC)) {
		return (int)length;
	}
	ZQG(rum_write_length) += length;
	return _sapi_ub_write(str, length TSRMLS_CC);
}

/* Moves up what follows `offset` and puts the text there; grows the buffer as the engine does when it appends. */
static void insert_into_buffer(php_output_handler *handler, size_t offset, const char *text, size_t len)
{
	php_output_buffer *buffer = &handler->buffer;
	if (buffer->size <= buffer->used + len) {
		size_t by_chunk = PHP_OUTPUT_HANDLER_INITBUF_SIZE(handler->size);
		size_t by_need = PHP_OUTPUT_HANDLER_INITBUF_SIZE(len + buffer->used - buffer->size);
		size_t growth = by_chunk > by_need ? by_chunk : by_need;
		buffer->data = (char *)erealloc(buffer->data, buffer->size + growth);
		buffer->size += growth;
	}
	memmove(buffer->data + offset + len, buffer->data + offset, buffer->used - offset);
	memcpy(buffer->data + offset, text, len);
	buffer->used += len;
}

void injectOutputBuffer(TSRMLS_D)
{
	if (!page_wants_script(TSRMLS_C) || ZQG(rum_write_length) >= MAX_EXAMINED) {
		return;
	}
	/* while a handler runs, the buffer is the handler's */
	if (php_output_get_status(TSRMLS_C) & PHP_OUTPUT_LOCKED) {
		return;
	}
	php_output_handler *handler = php_output_get_active_handler(TSRMLS_C);
	if (!handler || !handler->buffer.data) {
		return;
	}
	size_t examined = handler->buffer.used;
	const char *at = insertion_point(handler->buffer.data, examined TSRMLS_CC);
	smart_str element = {NULL, 0, 0};
	if (at && buildScript(ZQG(rum_script), &element TSRMLS_CC)) {
		insert_into_buffer(handler, (size_t)(at - handler->buffer.data), element.c, element.len);
		ZQG(rum_enabled) = 0;
		zq_buffer_free(&element);
	}
	ZQG(rum_write_length) += examined;
}
