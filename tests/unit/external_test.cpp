/* The recorder of outgoing calls at its boundaries, which no real call meets exactly. */
#include "zqp_action.h"
#include "engine_fixture.h"

#include "zqp_tracer.h"
#include "zqp_webservice.h"
#include "zqp_wrapper_external.h"

class External : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(action_tracer_enabled) = 1;
		ZQG(tracer_threshold_tick) = 1000;
		ZQG(rinit_tick) = 5000;
	}
	int record(const char *url, uint64 begin, uint64 end)
	{
		char func[] = "curl_exec";
		zq_stack_data call = {};
		call.func = func;
		return EXTERNAL_SERVICE(&call, url, nullptr, 200, nullptr, begin, end TSRMLS_CC);
	}
	const webservice_element *last() { return (const webservice_element *)ZQG(webservices)->tail->data; }
};

TEST_F(External, TracesWhatIsSlowerThanTheThresholdAndBeganInTheAction)
{
	const struct { uint64 begin, end; int traced, ms; } cases[] = {{6000, 7000, 0, 1}, {6000, 7001, 1, 1}, {4999, 9999, 0, 5}, {5000, 6999, 1, 1}};
	for (const auto &c : cases) {
		zq_empty_containers(TSRMLS_C);
		EXPECT_EQ(1, record("HTTP://Host/A?q=1", c.begin, c.end));
		EXPECT_EQ(c.ms, last()->metric);
		EXPECT_EQ(c.traced, zend_llist_count(ZQG(tracer))) << c.end;
		EXPECT_STREQ(c.traced ? "HTTP://Host/A?q=1" : nullptr, last()->url);
	}
}

TEST_F(External, KeepsNameAndQueryToOneLineOfTheirRecords)
{
	record("data://text/plain,HTTP/1.0 404\r\n\r\n?a\nb", 6000, 9000);
	EXPECT_STREQ("data:%2F%2Ftext%2Fplain,HTTP%2F1.0 *    /curl_exec", last()->name);
	EXPECT_STREQ("data://text/plain,HTTP/1.0 404    ?a b", last()->url);
}

TEST_F(External, CountsOnlyTheTimeOfCallsBeyondTheBound)
{
	record("http://h/", 6000, 9000);
	ZQG(recorded_webservice_bytes) = 32u << 20;
	EXPECT_EQ(1, record("http://h/", 6000, 11000));
	EXPECT_EQ(1, zend_llist_count(ZQG(webservices)));
	EXPECT_EQ(5, ZQG(unlisted_webservice_ms));
	zq_empty_containers(TSRMLS_C);
	EXPECT_EQ(0u, ZQG(unlisted_webservice_ms) + ZQG(recorded_webservice_bytes)) << "the next action begins anew";
}
