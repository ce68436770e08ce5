/* Trace context as the W3C has it (https://www.w3.org/TR/trace-context/): its header as text, the ids that stand for
 * transactions, and which requests may carry it. Free of the engine: the daemon derives its ids by the same function.
 */
#ifndef ZQP_TRACEPARENT_H
#define ZQP_TRACEPARENT_H

#include <cstddef>
#include <string_view>

enum { ZQ_TRACE_ID_SIZE = 16, ZQ_SPAN_ID_SIZE = 8, ZQ_TRACEPARENT_LEN = 55 };

typedef struct zq_traceparent {
	unsigned char trace_id[ZQ_TRACE_ID_SIZE];
	unsigned char span_id[ZQ_SPAN_ID_SIZE];
	bool sampled; /* the one flag that every version has */
} zq_traceparent;

/* Reads a header's value of version 00 or above. False, with `found` as it was, unless all of it is valid: hexadecimal
 * in lower case, no id of zeroes. */
bool zq_read_traceparent(std::string_view text, zq_traceparent *found);
/* Writes the value, of version 00, and a NUL. */
void zq_write_traceparent(const zq_traceparent &parent, char *text);
/* Writes an id in lower case, two digits a byte, without a NUL. */
void zq_write_hex(const unsigned char *id, size_t size, char *text);

/* An id of `size` bytes, a multiple of 8, that is the same on every host; never zeroes. Ids of one text that are of
 * different kinds have nothing in common. */
void zq_derive_id(unsigned char *id, size_t size, std::string_view kind, std::string_view text);
/* The trace id of a transaction: itself when it is one, 32 hexadecimal digits in lower case, else derived. */
void zq_trace_id_of(unsigned char *id, std::string_view transaction_id);

/* True when the URL's host fits one of `patterns`, names with "*" for any characters and "," between them; whatever the
 * case. Null patterns fit none. A URL may lack its scheme. */
bool zq_host_is_denied(std::string_view url, const char *patterns);
/* True when the URL's query holds a signature. */
bool zq_url_is_signed(std::string_view url);
/* True when a request with this header must not carry ours: it is the script's own trace context, or signs the request,
 * as an Authorization by any scheme may that is not known to do without. */
bool zq_header_forbids_traceparent(std::string_view name, std::string_view value);
/* The same for "name: value". */
bool zq_line_forbids_traceparent(std::string_view line);

#endif
