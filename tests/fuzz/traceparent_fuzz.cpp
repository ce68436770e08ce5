// Headers of callers, and of requests that go out: whatever is taken for a trace context is one.
// sources: ext/zqp_traceparent.cpp
#include "zqp_traceparent.h"

#include <cstring>
#include <string>

#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text(reinterpret_cast<const char *>(data), size);
	zq_traceparent found, again;
	if (zq_read_traceparent(text, &found)) {
		char written[ZQ_TRACEPARENT_LEN + 1];
		zq_write_traceparent(found, written);
		REQUIRE(strlen(written) == ZQ_TRACEPARENT_LEN && zq_read_traceparent(written, &again));
		REQUIRE(memcmp(found.trace_id, again.trace_id, sizeof found.trace_id) == 0 && found.sampled == again.sampled);
		REQUIRE(text.find(std::string(written + 2, 51)) != std::string::npos);
	}
	const size_t half = text.find('\n');
	const std::string url = text.substr(0, half), rest = half == std::string::npos ? "" : text.substr(half + 1);
	REQUIRE(!zq_host_is_denied(url, nullptr) && zq_host_is_denied(url, "*"));
	zq_host_is_denied(url, rest.c_str());
	zq_url_is_signed(url);
	zq_line_forbids_traceparent(text);
	unsigned char id[ZQ_TRACE_ID_SIZE] = {}, none[ZQ_TRACE_ID_SIZE] = {};
	zq_trace_id_of(id, text);
	REQUIRE(memcmp(id, none, sizeof id) != 0);
	return 0;
}
