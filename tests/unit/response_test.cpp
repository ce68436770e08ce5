/* The answer to a calling application: the header's text, and when it is added. */
#include <regex>
#include <string>
#include <vector>

#include "engine_fixture.h"

#include "zqp_io.h"
#include "zqp_nosql.h"
#include "zqp_webservice.h"

namespace {

std::vector<std::string> handed_over;

int take_header(sapi_header_struct *header, sapi_header_op_enum op, sapi_headers_struct * TSRMLS_DC)
{
	handed_over.push_back((op == 1 ? "add " : "other ") + std::string(header->header, header->header_len));
	header->header[0] = '?'; /* it is handed a line that it may cut */
	return 0;
}

class Response : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		zq_create_containers(TSRMLS_C);
		ZQG(agent_enabled) = 1;
		ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = 0;
		ZQG(action_tracer_action_threshold) = 1000000;
		ZQG(block_duration) = ZQG(sum_db_metric) = 0;
		ZQG(headers_sent) = 0;
		ZQG(transaction_parent) = 1;
		ZQG(vantor_id_secret) = estrdup("1|12|34");
		ZQG(action_name) = estrdup("WebAction/php/index");
		ZQG(tracer_id) = estrdup("5f0e");
		ZQG(rinit_tick) = cycle_timer();
		SG(sapi_started) = 1;
		SG(headers_sent) = SG(request_info).no_headers = 0; /* the embedded engine sends none by itself */
	}

	void TearDown() override
	{
		sapi_module.header_handler = NULL;
		SG(request_info).no_headers = 1;
		SG(sapi_started) = 0;
		ZQG(transaction_parent) = ZQG(agent_enabled) = 0;
		EngineTest::TearDown();
	}

	std::string line() { return taken(build_transaction_tx_data(0 TSRMLS_CC)); }

	/* Header lines of the engine's list that are ours. */
	std::vector<std::string> added()
	{
		std::vector<std::string> lines;
		for (zend_llist_element *at = SG(sapi_headers).headers.head; at; at = at->next) {
			const sapi_header_struct *header = (const sapi_header_struct *)at->data;
			std::string text(header->header, header->header_len);
			if (text.starts_with("X-Vantor-Tx-Data: ")) {
				lines.push_back(text);
			}
		}
		return lines;
	}

	static void set_text(char **field, const char *text)
	{
		if (*field) {
			efree(*field);
		}
		*field = text ? estrdup(text) : NULL;
	}

	static void add_total(HashTable *table, const char *key, uint64 us)
	{
		nosql_hash_element *element = (nosql_hash_element *)emalloc(sizeof *element);
		element->tsc = us;
		zend_hash_update(table, key, (uint)strlen(key) + 1, &element, sizeof element, NULL);
	}
};

/* The text with its two times that depend on the clock as letters, once they were found to belong together: what is
 * not spent elsewhere is code. */
std::string without_clock(const std::string &line, int elsewhere)
{
	std::smatch match;
	EXPECT_TRUE(std::regex_search(line, match, std::regex("\"duration\":(\\d+),.*\"code\":(\\d+)\\}\\}$"))) << line;
	if (match.empty()) {
		return line;
	}
	int rest = std::stoi(match[1]) - elsewhere;
	EXPECT_EQ(rest > 0 ? rest : 0, std::stoi(match[2])) << line;
	std::string text = std::regex_replace(line, std::regex("\"duration\":\\d+"), "\"duration\":D");
	return std::regex_replace(text, std::regex("\"code\":\\d+"), "\"code\":C");
}

TEST_F(Response, SaysWhoAnsweredAndWhereTheTimeWent)
{
	EXPECT_EQ("X-Vantor-Tx-Data: {\"id\":\"12|34\",\"action\":\"WebAction/php/index\",\"trId\":\"5f0e\","
	          "\"time\":{\"duration\":D,\"qu\":0,\"db\":0,\"code\":C}}",
	          without_clock(line(), 0));

	ZQG(rinit_tick) -= 5000000;
	ZQG(child_has_tracer) = ZQG(action_tracer_enabled) = 1;
	ZQG(block_duration) = 7;
	ZQG(sum_db_metric) = 100;
	set_text(&ZQG(transaction_req_id), "42");
	webservice_element service = {};
	service.metric = 20;
	zend_llist_add_element(ZQG(webservices), &service);
	add_total(ZQG(nosql_redis), "GET", 3999);
	add_total(ZQG(nosql_redis), "SET", 1999);
	add_total(ZQG(nosql_memcc), "GET", 5000);
	add_total(ZQG(nosql_mongo), "FIND", 6000);
	EXPECT_EQ("X-Vantor-Tx-Data: {\"id\":\"12|34\",\"action\":\"WebAction/php/index\",\"tr\":1,\"trId\":\"5f0e\",\"r\":42,"
	          "\"time\":{\"duration\":D,\"qu\":7,\"db\":100,\"ex\":20,\"rds\":4,\"mc\":5,\"mon\":6,\"code\":C}}",
	          without_clock(line(), 100 + 20 + 4 + 5 + 6));

	ZQG(sum_db_metric) = 1000000; /* more than there was: the code took no less than nothing */
	EXPECT_NE(std::string::npos, line().find("\"code\":0}}"));
}

TEST_F(Response, PromisesATraceFromTheActionThresholdOn)
{
	ZQG(action_tracer_enabled) = 1;
	ZQG(rinit_tick) -= 3000000;
	ZQG(action_tracer_action_threshold) = 100000;
	EXPECT_EQ(std::string::npos, line().find("\"tr\":"));
	ZQG(action_tracer_action_threshold) = 3000;
	EXPECT_NE(std::string::npos, line().find("\"tr\":1,"));
}

TEST_F(Response, MakesATraceIdThatTheReportWillUse)
{
	set_text(&ZQG(tracer_id), NULL);
	std::string text = line();
	ASSERT_NE(nullptr, ZQG(tracer_id));
	EXPECT_NE(std::string::npos, text.find("\"trId\":\"" + std::string(ZQG(tracer_id)) + "\""));
}

TEST_F(Response, StaysOneHeaderWhateverTheActionIsCalled)
{
	set_text(&ZQG(action_name), "WebAction/x\r\nSet-Cookie: a=b\t");
	set_text(&ZQG(vantor_id_secret), "no separator");
	EXPECT_EQ("X-Vantor-Tx-Data: {\"id\":\"\",\"action\":\"WebAction/x  Set-Cookie: a=b \",\"trId\":\"5f0e\","
	          "\"time\":{\"duration\":D,\"qu\":0,\"db\":0,\"code\":C}}",
	          without_clock(line(), 0));
}

TEST_F(Response, IsAddedOnceAtTheFirstChance)
{
	struct {
		const char *what;
		std::vector<int> started_parent_enabled_named; /* state */
		int no_headers, already_sent;
		size_t headers;
		int settled; /* later calls do not try again */
	} cases[] = {
		{"a monitored caller", {1, 1, 1, 1}, 0, 0, 1, 1},
		{"no monitored caller", {1, 0, 1, 1}, 0, 0, 0, 1},
		{"the agent was switched off", {1, 1, 0, 1}, 0, 0, 0, 1},
		{"after request end", {1, 1, 1, 0}, 0, 0, 0, 1},
		{"the server API is not started", {0, 1, 1, 1}, 0, 0, 0, 0},
		{"a request without headers", {1, 1, 1, 1}, 1, 0, 0, 0},
		{"the output was flushed before", {1, 1, 1, 1}, 0, 1, 0, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		zend_llist_clean(&SG(sapi_headers).headers);
		ZQG(headers_sent) = 0;
		SG(sapi_started) = (zend_bool)c.started_parent_enabled_named[0];
		ZQG(transaction_parent) = c.started_parent_enabled_named[1];
		ZQG(agent_enabled) = c.started_parent_enabled_named[2];
		set_text(&ZQG(action_name), c.started_parent_enabled_named[3] ? "a" : NULL);
		SG(request_info).no_headers = (zend_bool)c.no_headers;
		SG(headers_sent) = (unsigned char)c.already_sent;
		send_transaction_data(0 TSRMLS_CC);
		EXPECT_EQ(c.headers, added().size());
		EXPECT_EQ(c.settled, ZQG(headers_sent));
		send_transaction_data(1 TSRMLS_CC);
		EXPECT_EQ(c.headers, added().size()) << "at the second call";
	}
	SG(headers_sent) = 1; /* nothing is left to send when the request ends */
}

TEST_F(Response, GoesThroughTheServersOwnHandlerWhereThereIsOne)
{
	handed_over.clear();
	sapi_module.header_handler = take_header;
	send_transaction_data(0 TSRMLS_CC);
	ASSERT_EQ(1u, handed_over.size());
	EXPECT_EQ(0u, handed_over[0].find("add X-Vantor-Tx-Data: {\"id\":\"12|34\"")) << handed_over[0];
	EXPECT_EQ(0u, added().size()) << "the server keeps it itself";
}

} // namespace
