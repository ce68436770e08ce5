/* The recorder of outgoing calls at its boundaries, which no real call meets exactly. */
#include "engine_fixture.h"

#include "zqp_tracer.h"
#include "zqp_webservice.h"
#include "zqp_wrapper_external.h"
#include "zqp_wrapper_headers.h"

namespace {

class External : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		zq_create_containers(TSRMLS_C);
		ZQG(action_tracer_enabled) = 1;
		ZQG(tracer_threshold_tick) = 1000;
		ZQG(rinit_tick) = 5000;
		ZQG(child_has_tracer) = 0;
	}

	int record(const char *url, int status, uint64 begin, uint64 end, const char *answer = NULL)
	{
		char func[] = "curl_exec";
		zq_stack_data call = {};
		call.func = func;
		return EXTERNAL_SERVICE(&call, url, answer, status, NULL, begin, end TSRMLS_CC);
	}

	const webservice_element *last() { return (const webservice_element *)ZQG(webservices)->tail->data; }
};

TEST_F(External, TracesWhatIsSlowerThanTheThresholdAndBeganInTheAction)
{
	struct {
		uint64 begin, end;
		bool traced;
		int metric;
	} cases[] = {{6000, 7000, false, 1}, {6000, 7001, true, 1}, {4999, 9999, false, 5}, {5000, 6999, true, 1}, {6000, 6000, false, 0}};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.end);
		zq_empty_containers(TSRMLS_C);
		EXPECT_EQ(1, record("HTTP://Host/A?q=1", 200, c.begin, c.end));
		EXPECT_STREQ("http:%2F%2FHost%2FA/curl_exec", last()->name);
		EXPECT_EQ(c.metric, last()->metric);
		EXPECT_EQ(c.traced ? 1u : 0u, zend_llist_count(ZQG(tracer)));
		EXPECT_STREQ(c.traced ? "HTTP://Host/A?q=1" : nullptr, last()->url);
	}
}

TEST_F(External, KeepsTheStackOfFailuresButOfNoRequestForCredentials)
{
	for (int status : {0, 200, 301, 399, 401}) {
		record("http://h/", status, 6000, 6000);
		EXPECT_EQ(nullptr, last()->stack) << status;
	}
	for (int status : {400, 402, 404, 500, 999}) {
		record("http://h/", status, 6000, 6000);
		EXPECT_NE(nullptr, last()->stack) << status;
	}
}

TEST_F(External, RecordsNothingWithoutAnAddressAndTurnsQuotesOfAnswers)
{
	for (const char *url : {"localhost/x", "", (const char *)NULL, "http:/h"}) {
		EXPECT_EQ(0, record(url, 200, 6000, 9000));
	}
	EXPECT_EQ(0u, zend_llist_count(ZQG(webservices)));
	record("http://h/", 200, 6000, 6000, "{'id':'it\"s','action':'tr'}");
	EXPECT_EQ(1, ZQG(child_has_tracer)) << "the word counts once it stands in double quotes";
	EXPECT_STREQ("{\"id\":\"it\"s\",\"action\":\"tr\"}", last()->transaction_data);
}

TEST_F(External, CountsOnlyTheTimeOfCallsBeyondTheBound)
{
	record("http://h/", 200, 6000, 9000);
	EXPECT_LT(strlen(last()->name), ZQG(recorded_webservice_bytes));
	ZQG(recorded_webservice_bytes) = 32u << 20;
	EXPECT_EQ(1, record("http://h/", 200, 6000, 11000));
	EXPECT_EQ(1u, zend_llist_count(ZQG(webservices)));
	EXPECT_EQ(1u, zend_llist_count(ZQG(tracer)));
	EXPECT_EQ(5, ZQG(unlisted_webservice_ms));
	zq_empty_containers(TSRMLS_C);
	record("http://h/", 200, 6000, 9000);
	EXPECT_EQ(1u, zend_llist_count(ZQG(webservices))) << "the next action begins anew";
	EXPECT_EQ(0, ZQG(unlisted_webservice_ms));
}

TEST_F(External, TakesOnlyWholeAnswerLines)
{
	struct {
		std::string line;
		const char *kept;
	} cases[] = {
		{"X-Vantor-Tx-Data: 12\r", "12 "},
		{"X-Vantor-Tx-Data: 1\r", NULL},
		{"X-Vantor-Tx-Data: ", NULL},
		{"x-Vantor-Tx-Data: {}123\r\n", NULL},
		{"X-Vantor-Tx-Dat", NULL},
		{"X-Vantor-Tx-Data: {}\r\n", "{}  "},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.line);
		wrapper_curl_exec(NULL TSRMLS_CC);
		curl_header_handler(c.line.data(), c.line.size() TSRMLS_CC);
		EXPECT_STREQ(c.kept, ZQG(transaction_curl_response_data));
	}
}

} // namespace
