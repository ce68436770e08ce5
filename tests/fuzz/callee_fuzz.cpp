// What a called service says of itself, in the trace that quotes it: whatever it is, and whatever URL and ids hold, the daemon can
// read the trace, and the answer that is in it is the one that came.
// Input: the callee's name for itself, the URL and the transaction's id, each in a line, then its answer.
// sources: ext/zqp_tracer_tree.cpp ext/zqp_details.cpp ext/zqp_json.cpp ext/zqp_lock.cpp ext/zqp_helper_string.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp ext/zqp_tracer_sql_name.cpp tests/fuzz/engine.cpp daemon/base/json_text.cpp daemon/base/text.cpp daemon/base/cells.cpp daemon/base/clock.cpp
// libraries: libcjson nlohmann_json
#include "base/json_text.h"
#include "require.h"
#include "zqp_json_text.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"

#include <nlohmann/json.hpp>

extern "C" {

void *_ecalloc(size_t count, size_t size)
{
	void *block = _safe_emalloc(count, size, 0);
	memset(block, 0, count * size);
	return block;
}

int zend_llist_count(zend_llist *list) { return (int)list->count; }

unsigned php_next_utf8_char(const unsigned char *text, size_t len, size_t *at, int *status)
{
	unsigned code_point = (unsigned char)text[*at];
	size_t size = code_point < 128 ? 1 : zq_decode_utf8((const char *)text + *at, len - *at, &code_point);
	*status = size ? SUCCESS : FAILURE;
	*at += size ? size : 1;
	return code_point;
}

} // extern "C"

namespace {

// The trace of an action that made one call.
std::string trace_of(webservice_element *call, char *transaction_id)
{
	zend_zqprof_globals globals = {};
	globals.transaction_id = transaction_id;
	globals.rdown_tick = 2000;
	void *blocks[] = {&globals}, *context[] = {blocks};
	alignas(zend_llist_element) char node[sizeof(zend_llist_element) + sizeof(tracer_element)] = {};
	auto *element = (zend_llist_element *)node;
	auto *tracer = (tracer_element *)element->data;
	char func[] = "curl_exec";
	tracer->func = func;
	tracer->end = 1000;
	tracer->data_type = ZQ_TRACER_EXTERNAL;
	tracer->data = call;
	zend_llist list = {};
	list.head = list.tail = element;
	list.count = 1;
	smart_str json = {};
	tracer_list_to_json(2, &list, &json, (void ***)context);
	std::string text(json.c, json.len);
	zq_buffer_free(&json);
	return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view input((const char *)data, size);
	CText name(take_line(&input)), url(take_line(&input)), id(take_line(&input)), answer(input);
	webservice_element call = {};
	call.name = name;
	call.url = url;
	call.transaction_data = answer;
	std::string text = trace_of(&call, id);
	auto trace = quorbit::parse_agent_json(text);
	REQUIRE(trace);
	const auto &params = trace->at(8).at(0).at(7);
	REQUIRE(!params.contains("txData") || params["txData"] == *quorbit::parse_agent_json(answer.str()));
	return 0;
}
