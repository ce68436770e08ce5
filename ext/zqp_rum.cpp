/* Insertion of the browser script. A page is searched chunk by chunk, and only at its beginning: an html tag must have
 * been seen, then the end of the title or of the head is the place. */
#include "zqp_rum.h"
#include "zqp_details.h"
#include "zqp_io.h"

/* The name can come from the client's URI: what could end the string or the script is written as an escape. */
static void append_script_text(smart_str *out, const char *text)
{
	char written[ZQ_RUM_ESCAPE_SIZE];
	for (; text && *text; text++) {
		zq_append(out, written, zq_rum_escape(written, *text));
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
	return ZQG(agent_enabled) && ZQG(rum_enabled) && ZQG(rum_script) && ZQG(rum_write_length) < ZQ_RUM_EXAMINED_BYTES;
}

/* The engine's compression runs as an output handler: what is still in a buffer is plain text. */
static bool engine_compresses(TSRMLS_D)
{
	return php_output_handler_started(ZEND_STRL("zlib output compression") TSRMLS_CC) ||
		php_output_handler_started(ZEND_STRL("ob_gzhandler") TSRMLS_CC);
}

/* What is no page of its own, or has been measured to the last byte. */
static bool is_download(const char *header)
{
	static const char *const names[] = {"content-md5:", "digest:", "content-digest:", "repr-digest:"};
	for (const char *name : names) {
		if (zq_strncasecmp(header, name, strlen(name)) == 0) {
			return true;
		}
	}
	if (zq_strncasecmp(header, ZEND_STRL("content-disposition:")) != 0) {
		return false;
	}
	const char *kind = header + sizeof("content-disposition:") - 1;
	return zq_strncasecmp(kind + strspn(kind, " \t"), ZEND_STRL("attachment")) == 0;
}

/* 1 when this header says that the body is something into which no element can be put. The script's own calls of
 * header() are seen as they are made; an extension, the configuration or an output handler sets headers unseen. */
static int header_forbids(const char *header, int in_buffer TSRMLS_DC)
{
	if (zq_strncasecmp(header, ZEND_STRL("content-encoding:")) == 0) {
		return !in_buffer || !engine_compresses(TSRMLS_C);
	}
	return zq_strncasecmp(header, ZEND_STRL("transfer-encoding:")) == 0 || is_download(header) ||
		get_header_content(header) == 0;
}

/* A response without a type of its own will get the configured one. */
static int default_type_is_html(TSRMLS_D)
{
	const char *type = SG(default_mimetype);
	return !SG(sapi_headers).send_default_content_type || !type || zq_strcasestr(type, "text/html");
}

static int response_forbids(int in_buffer TSRMLS_DC)
{
	for (zend_llist_element *at = SG(sapi_headers).headers.head; at; at = at->next) {
		if (header_forbids(((sapi_header_struct *)at->data)->header, in_buffer TSRMLS_CC)) {
			return 1;
		}
	}
	return !default_type_is_html(TSRMLS_C);
}

/* An html tag has been seen, in this piece or an earlier one. */
static int in_html(const char *piece, size_t length TSRMLS_DC)
{
	if (ZQG(rum_flag) < 1 && html_pos(piece, length)) {
		ZQG(rum_flag) = 1;
	}
	return ZQG(rum_flag) == 1;
}

/* Under CGI and FPM the response headers pass through the writer too, each in a chunk of its own that is the header's
 * very text, and each line end: the one after a line end is that of the empty line after all of them. They are no
 * part of the page. */
static bool is_response_header(const char *chunk, unsigned int length TSRMLS_DC)
{
	zend_zqprof_globals *g = zq_globals(TSRMLS_C);
	if (!SG(headers_sent)) {
		return false;
	}
	if (SG(sapi_headers).http_status_line) {
		return true; /* freed when the headers are out */
	}
	for (zend_llist_element *at = SG(sapi_headers).headers.head; at; at = at->next) {
		if (((sapi_header_struct *)at->data)->header == chunk) {
			g->rum_header_lines = 2;
			return true;
		}
	}
	if (g->rum_header_lines && length == 2 && memcmp(chunk, "\r\n", 2) == 0) {
		g->rum_header_lines--;
		return true;
	}
	g->rum_header_lines = 0;
	return false;
}

/* The element, freed by zq_buffer_free; its `c` is null when the script is unusable. After a page that exhausted the
 * memory limit nothing is left. */
static smart_str make_element(TSRMLS_D)
{
	smart_str element = {};
	zq_lift_memory_limit(TSRMLS_C);
	buildScript(ZQG(rum_script), &element TSRMLS_CC);
	zq_restore_memory_limit(TSRMLS_C);
	return element;
}

/* Writes the chunk with the element in it; 1, or 0 with nothing written when this is not the place. */
static int write_with_script(const char *str, unsigned int length TSRMLS_DC)
{
	const char *at =
		rum_pos(str, length, &ZQG(rum_page)); /* the headers are asked last: a page may come in many pieces */
	if (!in_html(str, length TSRMLS_CC) || !at || response_forbids(0 TSRMLS_CC)) {
		return 0;
	}
	smart_str element = make_element(TSRMLS_C);
	if (!element.c) {
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
	if (g_module_up && UNEXPECTED(ZQG(details) != NULL) && !is_response_header(str, length TSRMLS_CC)) {
		ZQG(details)->output_bytes += length;
	}
	if (EXPECTED(!g_module_up || !page_wants_script(TSRMLS_C)) || is_response_header(str, length TSRMLS_CC)) {
		return _sapi_ub_write(str, length TSRMLS_CC);
	}
	if (write_with_script(str, length TSRMLS_CC)) {
		return (int)length;
	}
	ZQG(rum_write_length) += length;
	return _sapi_ub_write(str, length TSRMLS_CC);
}

/* Grows the buffer as the engine does when it appends `len` bytes. 0 when the script's memory limit leaves no room:
 * after a fatal error the engine discards the page of a request that is beyond it. */
static int grow_buffer(php_output_handler *handler, size_t len TSRMLS_DC)
{
	php_output_buffer *buffer = &handler->buffer;
	if (buffer->size > buffer->used + len) {
		return 1;
	}
	size_t by_chunk = PHP_OUTPUT_HANDLER_INITBUF_SIZE(handler->size);
	size_t by_need = PHP_OUTPUT_HANDLER_INITBUF_SIZE(len + buffer->used - buffer->size);
	size_t size = buffer->size + (by_chunk > by_need ? by_chunk : by_need);
	char *grown = (char *)emalloc(size);
	if (zend_memory_usage(1 TSRMLS_CC) > (size_t)PG(memory_limit)) {
		efree(grown);
		return 0;
	}
	memcpy(grown, buffer->data, buffer->used);
	efree(buffer->data);
	buffer->data = grown;
	buffer->size = size;
	return 1;
}

/* Moves up what follows `offset` and puts the element there, if there is one and room for it. */
static void insert_element(php_output_handler *handler, size_t offset TSRMLS_DC)
{
	smart_str element = make_element(TSRMLS_C);
	zq_lift_memory_limit(TSRMLS_C);
	if (element.c && grow_buffer(handler, element.len TSRMLS_CC)) {
		char *at = handler->buffer.data + offset;
		memmove(at + element.len, at, handler->buffer.used - offset);
		memcpy(at, element.c, element.len);
		handler->buffer.used += element.len;
		ZQG(rum_enabled) = 0;
	}
	zq_buffer_free(&element);
	zq_restore_memory_limit(TSRMLS_C);
}

/* The same text may be looked at again, and be thrown away: the page goes on only as it is written. */
static const char *place_in_buffer(const char *text, size_t used TSRMLS_DC)
{
	if (!in_html(text, used TSRMLS_CC) || !rum_pos(text, used, NULL)) {
		return NULL;
	}
	zq_page_place page = ZQG(rum_page);
	const zend_stack *handlers = &OG(handlers);
	for (int i = 0; i + 1 < handlers->top; i++) { /* what waits in the buffers below comes first */
		const php_output_buffer *below = &(*(php_output_handler **)handlers->elements[i])->buffer;
		if (below->data) {
			rum_pos(below->data, below->used, &page);
		}
	}
	return rum_pos(text, used, &page);
}

void injectOutputBuffer(TSRMLS_D)
{
	/* while a handler runs, the buffer is the handler's */
	if (!page_wants_script(TSRMLS_C) || (php_output_get_status(TSRMLS_C) & PHP_OUTPUT_LOCKED)) {
		return;
	}
	php_output_handler *handler = php_output_get_active_handler(TSRMLS_C);
	if (!handler || !handler->buffer.data) {
		return;
	}
	size_t examined = handler->buffer.used;
	const char *at = place_in_buffer(handler->buffer.data, examined TSRMLS_CC);
	if (at && !response_forbids(1 TSRMLS_CC)) {
		insert_element(handler, (size_t)(at - handler->buffer.data) TSRMLS_CC);
	}
	ZQG(rum_write_length) += examined;
}
