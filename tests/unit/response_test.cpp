#include <regex>

#include "engine_fixture.h"

#include "zqp_io.h"
#include "zqp_nosql.h"
#include "zqp_webservice.h"

class Response : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = 1;
		ZQG(block_duration) = -3;
		ZQG(vantor_id_secret) = estrdup("1|12|34");
		ZQG(action_name) = estrdup("x'\"\\\r\n\xc3\xa9");
		ZQG(tracer_id) = estrdup("5f0e");
		ZQG(rinit_tick) = cycle_timer();
	}
};

TEST_F(Response, SaysWhoAnsweredAndWhereTheTimeWentInOneHeader)
{
	const std::string identity = "X-Vantor-Tx-Data: {\"id\":\"12|34\",\"action\":\"x\\u0027\\u0022\\u005c  \xc3\xa9\",\"tr\":1,\"trId\":\"5f0e\",\"r\":42,";
	ZQG(transaction_req_id) = estrdup("42");
	webservice_element service = {};
	service.metric = 800;
	zend_llist_add_element(ZQG(webservices), &service);
	const std::pair<HashTable *, uint64> stores[] = {{ZQG(nosql_redis), 3999}, {ZQG(nosql_memcc), 5000}, {ZQG(nosql_mongo), 6000}};
	for (const auto &[table, us] : stores) {
		zq_nosql_add(table, nullptr, "a", ZQ_OPERATION_AS_GIVEN, us TSRMLS_CC);
		zq_nosql_add(table, nullptr, "b", ZQ_OPERATION_AS_GIVEN, 999 TSRMLS_CC);
	}
	ZQG(rinit_tick) -= 5300000;
	ZQG(sum_db_metric) = 20;
	std::string line = taken(build_transaction_tx_data(0 TSRMLS_CC)); /* the last digits depend on how fast this machine is */
	EXPECT_EQ(std::regex_replace(line, std::regex(":([45])\\d\\d\\d\\b"), ":$1T"),
	          identity + "\"time\":{\"duration\":5T,\"qu\":-3,\"db\":20,\"ex\":800,\"rds\":3,\"mc\":5,\"mon\":6,\"code\":4T}}");
	ZQG(sum_db_metric) = 1000000; /* more than there was: the code took no less than nothing */
	EXPECT_NE(taken(build_transaction_tx_data(0 TSRMLS_CC)).find("\"code\":0}}"), std::string::npos);
}
