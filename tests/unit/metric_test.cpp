/* The metric packet from lists built by hand. The expected bytes are literals: nothing of the encoder is used to make them. */
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "engine_fixture.h"

#include "zqp_component.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_lock.h"
#include "zqp_nosql.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"

using namespace std::string_literals;

class MetricPacket : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = ZQG(block_duration) = ZQG(sum_db_metric) = 0;
		ZQG(action_tracer_record_sql) = 1;
		efree(ZQG(app_name)); /* what request start made of the settings */
		ZQG(app_name) = estrdup("shop");
		ZQG(license) = "key";
		ZQG(rinit_cpu) = UINT64_MAX; /* the clock did not move */
	}

	/* Makes a connection of which `ends[1]` is the daemon's. */
	void connect_to(int ends[2])
	{
		struct stat status;
		ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
		ASSERT_EQ(0, fstat(ends[0], &status));
		ZQG(daemon_sock) = ends[0];
		ZQG(daemon_process) = zq_process_number();
		ZQG(daemon_inode) = status.st_ino;
	}

	/* What a daemon receives of the action, with "????" for the system time in it. */
	std::string report(int duration)
	{
		int ends[2];
		connect_to(ends);
		std::string packet;
		std::thread daemon([&] {
			char buffer[65536];
			for (ssize_t got; (got = read(ends[1], buffer, sizeof buffer)) > 0;) {
				packet.append(buffer, (size_t)got);
			}
		});
		send_metric(duration TSRMLS_CC);
		EXPECT_EQ(ends[0], ZQG(daemon_sock)) << "the connection stays open";
		close_daemon(ends[0] TSRMLS_CC);
		daemon.join();
		close(ends[1]);
		size_t system_time = packet.find("\x1B\x00\x00\x04"s);
		return system_time == std::string::npos ? packet : packet.replace(system_time + 4, 4, "????");
	}

	void add_statement(const char *db, const std::string &statement, int ms, const char *stack = "", const char *explain = "")
	{
		sql_element element = {db, estrdup(statement.c_str()), *stack ? estrdup(stack) : nullptr, *explain ? estrdup(explain) : nullptr, ms};
		zend_llist_add_element(ZQG(sqls), &element);
	}
};

TEST_F(MetricPacket, WritesEveryKindOfRecordByteForByte)
{
	ZQG(action_name) = estrdup("WebAction/URI/x");
	ZQG(block_duration) = 258;
	ZQG(sum_db_metric) = 1999;
	add_statement("test", std::string(300, 'x'), 12);
	add_statement(nullptr, "SELECT 1", 7, "[\"f\"]", "{\"p\":1}");
	zq_nosql_add(ZQG(nosql_memcc), nullptr, "get", ZQ_OPERATION_UPPER, 12999 TSRMLS_CC);
	zq_nosql_add(ZQG(nosql_mongo), "shop.users", "find", ZQ_OPERATION_UPPER, 3000 TSRMLS_CC);
	zq_nosql_add(ZQG(nosql_redis), nullptr, "GET", ZQ_OPERATION_AS_GIVEN, 999 TSRMLS_CC);
	const char answer[] = "{\"id\":\"12|34\",\"action\":\"WebAction/php/index\",\"tr\":1}";
	for (webservice_element call : {
			 webservice_element{estrdup("http:%2F%2Fh%2Fa/curl_exec"), nullptr, estrdup(answer), nullptr, nullptr, 120, 200},
			 webservice_element{estrdup("n"), estrdup("http://h/a?q=1?2"), nullptr, estrdup("say \"no\""), estrdup("[\"f\"]"), 7, 200}}) {
		zend_llist_add_element(ZQG(webservices), &call);
	}
	zq_component_add("PHP/Shop/checkout", 200, 150 TSRMLS_CC);
	SG(sapi_headers).http_response_code = 500;
	ZQG(error) = error_element_alloc("a\nb", "DB_ERROR", estrndup("[\"f\"]\0", 6));
	ZQG(action_tracer_enabled) = 1;
	ZQG(action_tracer_action_threshold) = 3000;
	ZQG(rdown_tick) = ZQG(rinit_tick) + 3000000;
	ZQG(transaction_id) = estrdup("t");
	ZQG(tracer_id) = estrdup("5f0e");

	EXPECT_EQ("\x0B\x00\x03\x23" "\x11\x00\x00\x04shop" "\x0E\x00\x00\x03key" "\x12\x00\x00\x0FWebAction/URI/x"
	          "\x1A\x00\x00\x04\x00\x00\x00\x00" "\x1B\x00\x00\x04????" "\x14\x00\x00\x04\x02\x01\x00\x00"
	          "\x15\x00\x00\x04\xB8\x0B\x00\x00" "\x16\x00\x00\x04\xCF\x07\x00\x00"
	          "\x27\x00\x01\x3A" "2:124:test300:"s + std::string(300, 'x') + "\x27\x00\x00\x1F" "1:70:8:SELECT 15:[\"f\"]7:{\"p\":1}"
	          "\x29\x00\x00\x11Memcached\n\nGET\n12" "\x17\x00\x00\x0C" "12\nMemcached"
	          "\x29\x00\x00\x19MongoDB\nshop.users\nFIND\n3" "\x17\x00\x00\x09" "3\nMongoDB" "\x29\x00\x00\x0CRedis\n\nGET\n0"
	          "\x29\x00\x00\x3Ehttp\nhttp:%2F%2Fh%2Fa/curl_exec\n\n120\n12|34\nWebAction/php/index" "\x29\x00\x00\x09http\nn\n\n7"
	          "\x18\x00\x00\x04\x7F\x00\x00\x00" "\x2B\x00\x00\x18" "200\n50\nPHP/Shop/checkout"
	          "\x2B\x00\x00\x1F" "809\n809\nPHP/NULL/remainder code" "\x2A\x00\x00\x19" "1\n500\nDB_ERROR\na\\nb\n[\"f\"]"
	          "\x2D\x00\x00\x2B" "External/n\n1000\n200\nsay \\\"no\\\"\n?q=1?2\n[\"f\"]"
	          "\x25\x00\x00\x26[0,3000,\"\",\"\",1,\"PHP\",\"execute\",{},[]]" "\x20\x00\x00\x01t" "\x26\x00\x00\x04" "5f0e"s,
	          report(3000));

	EXPECT_EQ(std::string::npos, report(3000 - 809).find("remainder")) << "nothing is left";
}

TEST_F(MetricPacket, DropsATraceThatNoLengthCanFrameAndSendsTheRest)
{
	ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = 1;
	tracer_element call = {};
	call.func = estrdup(std::string(0x1000000, 'f').c_str());
	call.start = ZQG(rinit_tick);
	call.end = ZQG(rdown_tick) = ZQG(rinit_tick) + 1000; /* within the action, or it has no place in its trace */
	zend_llist_add_element(ZQG(tracer), &call);
	EXPECT_EQ(4u + 8 + 7 + 5 * 8, report(0).size());
}

TEST_F(MetricPacket, IsSentUpToTheLongestLengthAndNotBeyond)
{
	const size_t others = 8 + 7 + 5 * 8, framing = 4 + strlen("1:00:8388559:"); /* identity and times; a statement's */
	for (size_t excess : {0, 1}) {
		size_t left = 0xFFFFFF - others + excess;
		add_statement("", std::string(left / 2 - framing, 'a'), 0);
		add_statement("", std::string(left - left / 2 - framing, 'b'), 0);
		EXPECT_EQ(excess ? 0 : 4u + 0xFFFFFF, report(0).size());
		zend_llist_clean(ZQG(sqls));
	}
}

TEST_F(MetricPacket, FindsItemsOfAnAnswerWithoutParsingIt)
{
	const auto id = [](const std::string &answer) {
		char *start = nullptr;
		int length = -1;
		return get_transcation_data_item(answer.c_str(), "\"id\"", &start, &length) ? std::string(start, (size_t)length) : "none";
	};
	expect_made(id, {
		{"{\"id\":\"12|34\",\"action\":\"x\"}", "12|34"}, {"{\"id\":12,\"action\":\"x\"}", "action"}, /* an unquoted value is passed over */
		{"{\"id\":\"cut", "cut"}, {"{\"id\":", "none"}, {"{\"id\"", "none"}, {"{\"trId\":\"x\"}", "none"}, {"", "none"},
	});
}

TEST_F(MetricPacket, OfAProfileIsWorthNoConnection)
{
	ZQG(profile_end_time) = UINT64_MAX;
	ZQG(daemon_process) = 77;
	thread_profile("enter function", "f", NULL TSRMLS_CC);
	ZQG(profile_end_time) = 0;
	EXPECT_EQ(77u, ZQG(daemon_process)) << "none was tried, even in vain";
}

TEST_F(MetricPacket, NeverGoesToAFileThatTookTheNumberOfTheConnection)
{
	int ours[2], scripts[2];
	char byte;
	connect_to(ours);
	ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, scripts));
	ASSERT_EQ(ours[0], dup2(scripts[1], ours[0]));
	for (unsigned owner : {zq_process_number(), zq_process_number() + 1}) { /* also when it was inherited */
		ZQG(daemon_sock) = ours[0];
		ZQG(daemon_process) = owner;
		send_metric(1 TSRMLS_CC);
		EXPECT_EQ(-1, recv(scripts[0], &byte, 1, MSG_DONTWAIT)) << "nothing was written";
		EXPECT_EQ(1, write(ours[0], "x", 1)) << "and nothing closed";
		EXPECT_EQ(1, read(scripts[0], &byte, 1));
	}
	for (int fd : {ours[0], ours[1], scripts[0], scripts[1]}) {
		close(fd);
	}
}
