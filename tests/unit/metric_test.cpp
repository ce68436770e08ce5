/* The metric packet and the thread-profile packet, byte for byte, from lists built by hand. The expected bytes are
 * literals: nothing of the encoder is used to make them. */
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "engine_fixture.h"

#include "zqp_component.h"
#include "zqp_exception.h"
#include "zqp_io.h"
#include "zqp_nosql.h"
#include "zqp_tracer.h"
#include "zqp_webservice.h"

using namespace std::string_literals;

namespace {

typedef std::pair<int, std::string> Record; /* type, body */
typedef std::vector<std::string> Texts;

size_t length_at(const std::string &bytes, size_t at)
{
	auto byte = [&](size_t i) { return (size_t)(unsigned char)bytes[at + i]; };
	return byte(1) << 16 | byte(2) << 8 | byte(3);
}

/* The records of a packet, which must fill it exactly; its own header comes first, with an empty body. */
std::vector<Record> records_of(const std::string &packet)
{
	EXPECT_GE(packet.size(), 4u) << "no packet";
	if (packet.size() < 4) {
		return {};
	}
	EXPECT_EQ(packet.size() - 4, length_at(packet, 0));
	std::vector<Record> records = {{(unsigned char)packet[0], ""}};
	size_t at = 4;
	while (at + 4 <= packet.size()) {
		size_t length = length_at(packet, at);
		records.push_back({(unsigned char)packet[at], packet.substr(at + 4, length)});
		at += 4 + length;
	}
	EXPECT_EQ(packet.size(), at) << "records overrun the packet";
	return records;
}

Texts bodies(const std::vector<Record> &records, int wanted)
{
	Texts found;
	for (const auto &[type, body] : records) {
		if (type == wanted) {
			found.push_back(body);
		}
	}
	return found;
}

template <typename T> void add_row(HashTable *table, const std::string &key, T value)
{
	T *element = (T *)emalloc(sizeof(T));
	*element = value;
	zend_hash_update(table, key.c_str(), (uint)key.size() + 1, &element, sizeof element, NULL);
}

char *copy(const char *text) { return text ? estrdup(text) : NULL; }

/* An action of which nothing is known but who it belongs to, and a daemon's end of the socket. */
class BarePacket : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = ZQG(capture_params) = 0;
		ZQG(action_tracer_action_threshold) = 500;
		ZQG(block_duration) = ZQG(sum_db_metric) = 0;
		ZQG(profile_end_time) = 0;
		efree(ZQG(app_name)); /* what request start made of the settings */
		ZQG(app_name) = estrdup("shop");
		ZQG(license) = "key";
		was_cli = g_cli;
		g_cli = 1;
		connect();
	}

	void TearDown() override
	{
		g_cli = was_cli;
		SG(request_info).request_uri = NULL;
		ZQG(license) = NULL;
		hang_up();
		close_daemon(ZQG(daemon_sock) TSRMLS_CC);
		EngineTest::TearDown();
	}

	void connect()
	{
		int ends[2];
		ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
		close_daemon(ZQG(daemon_sock) TSRMLS_CC);
		ZQG(daemon_sock) = ends[0];
		ZQG(daemon_pid) = getpid();
		daemon = ends[1];
	}

	void hang_up()
	{
		if (daemon != -1) {
			close(daemon);
			daemon = -1;
		}
	}

	/* What has arrived so far. */
	std::string received()
	{
		std::string bytes;
		char buffer[65536];
		ssize_t got;
		while ((got = recv(daemon, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
			bytes.append(buffer, (size_t)got);
		}
		return bytes;
	}

	std::vector<Record> report(int duration = 0)
	{
		send_metric(duration TSRMLS_CC);
		return records_of(received());
	}

	void add_statement(const char *db, const std::string &statement, int ms, const char *stack = NULL, const char *explain = NULL)
	{
		sql_element element = {db, estrndup(statement.data(), (uint)statement.size()), copy(stack), copy(explain), ms};
		zend_llist_add_element(ZQG(sqls), &element);
	}

	void add_service(webservice_element element)
	{
		for (char **text : {&element.name, &element.url, &element.transaction_data, &element.error_msg, &element.stack}) {
			*text = copy(*text);
		}
		zend_llist_add_element(ZQG(webservices), &element);
	}

	void add_traced_call(const std::string &function, uint64 start, uint64 end)
	{
		tracer_element element = {};
		element.func = estrndup(function.data(), (uint)function.size());
		element.start = ZQG(rinit_tick) + start;
		element.end = ZQG(rinit_tick) + end;
		zend_llist_add_element(ZQG(tracer), &element);
	}

	void set_variable(int kind, const char *name, const char *text)
	{
		add_assoc_string(PG(http_globals)[kind], name, (char *)text, 1);
	}

	static std::string log()
	{
		std::ifstream file(runtime_root() + "/log/quorbit/php-agent.log");
		return {std::istreambuf_iterator<char>(file), {}};
	}

	int daemon = -1;
	int was_cli = 0;
};

/* The same with its lists and tables, still empty. */
class MetricPacket : public BarePacket {
protected:
	void SetUp() override
	{
		BarePacket::SetUp();
		zq_create_containers(TSRMLS_C);
	}
};

TEST_F(BarePacket, OfAnEmptyActionHoldsItsIdentityAndTimes)
{
	ZQG(rinit_cpu) = UINT64_MAX; /* the clock did not move */
	ZQG(block_duration) = 258;
	ZQG(sum_db_metric) = 1999;
	send_metric(1999 TSRMLS_CC);
	std::string packet = received();
	ASSERT_EQ(4u + 8 + 7 + 5 * 8, packet.size());
	packet.replace(4 + 8 + 7 + 8 + 4, 4, "????"); /* system ticks of this process */
	EXPECT_EQ("\x0B\x00\x00\x37"
	          "\x11\x00\x00\x04shop"
	          "\x0E\x00\x00\x03key"
	          "\x1A\x00\x00\x04\x00\x00\x00\x00"
	          "\x1B\x00\x00\x04????"
	          "\x14\x00\x00\x04\x02\x01\x00\x00"
	          "\x15\x00\x00\x04\xCF\x07\x00\x00"
	          "\x16\x00\x00\x04\xCF\x07\x00\x00"s,
	          packet);
}

TEST_F(MetricPacket, KeepsTheOrderOfItsRecords)
{
	g_cli = 0;
	ZQG(action_name) = estrdup("WebAction/URI/x");
	ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = ZQG(capture_params) = 1;
	ZQG(transaction_id) = estrdup("abc");
	ZQG(error) = error_element_alloc("m", "C", NULL);
	add_statement("test", "SELECT 1", 12);
	for (HashTable *table : {ZQG(nosql_memcc), ZQG(nosql_mongo), ZQG(nosql_redis)}) {
		add_row(table, "k", nosql_hash_element{5000});
	}
	char name[] = "n", stack[] = "[]";
	add_service({name, NULL, NULL, NULL, stack, 7, 0});
	add_row(ZQG(components_hash), "PHP/NULL/f", component_hash_element{9, 2});
	add_traced_call("f", 0, 1000);
	SG(request_info).request_uri = (char *)"/x";
	zend_is_auto_global("_SERVER", sizeof "_SERVER" - 1 TSRMLS_CC);
	set_variable(TRACK_VARS_SERVER, "HTTP_REFERER", "r");
	set_variable(TRACK_VARS_SERVER, "HTTP_USER_AGENT", "u");
	set_variable(TRACK_VARS_GET, "a", "1");
	set_variable(TRACK_VARS_POST, "b", "2");

	std::vector<int> types;
	for (const Record &record : report(1000)) {
		types.push_back(record.first);
	}
	EXPECT_EQ((std::vector<int>{0x0B, 0x11, 0x0E, 0x12, 0x21, 0x1A, 0x1B, 0x14, 0x15, 0x16, 0x27, 0x29, 0x17, 0x29, 0x17,
	                            0x29, 0x17, 0x29, 0x18, 0x2B, 0x2B, 0x2A, 0x2D, 0x25, 0x20, 0x26, 0x24, 0x24, 0x24, 0x24,
	                            0x23, 0x23}),
	          types);
}

TEST_F(MetricPacket, WritesStatementsAsLengthPrefixedItems)
{
	const char *stack = "[\"f\"]", *plan = "{\"p\":1}";
	struct {
		int record_sql;
		const char *db, *stack, *explain;
		const char *expected;
	} cases[] = {
		{1, "test", NULL, NULL, "2:124:test8:SELECT 1"},
		{1, NULL, NULL, NULL, "2:120:8:SELECT 1"},
		{1, "test", stack, plan, "2:124:test8:SELECT 15:[\"f\"]7:{\"p\":1}"},
		{2, "test", NULL, plan, "2:124:test8:SELECT 17:{\"p\":1}"},
		{0, "test", stack, plan, "2:124:test8:SELECT 1"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.expected);
		ZQG(action_tracer_record_sql) = c.record_sql;
		add_statement(c.db, "SELECT 1", 12, c.stack, c.explain);
		EXPECT_EQ(Texts{c.expected}, bodies(report(), 0x27));
		zend_llist_clean(ZQG(sqls));
	}
}

TEST_F(MetricPacket, SumsStoresInWholeMillisecondsPerOperation)
{
	std::string long_key(300, 'k');
	struct {
		HashTable *table;
		std::vector<std::pair<std::string, uint64>> rows;
		Texts totals, sums;
	} cases[] = {
		{ZQG(nosql_memcc), {{"GET", 12999}}, {"Memcached\n\nGET\n12"}, {"12\nMemcached"}},
		{ZQG(nosql_redis), {{"HSET", 999}, {"GET", 999}}, {"Redis\n\nHSET\n0", "Redis\n\nGET\n0"}, {}},
		{ZQG(nosql_redis), {{"", 1000}}, {"Redis\n\n\n1"}, {"1\nRedis"}},
		{ZQG(nosql_mongo), {{"shop.users\nFIND", 3000}, {"DROP", 1999}}, {"MongoDB\nshop.users\nFIND\n3", "MongoDB\nDROP\n1"}, {"4\nMongoDB"}},
		{ZQG(nosql_mongo), {{long_key, 5000}}, {("MongoDB\n" + long_key).substr(0, 127)}, {"5\nMongoDB"}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.totals[0]);
		for (const auto &[key, us] : c.rows) {
			add_row(c.table, key, nosql_hash_element{us});
		}
		auto records = report();
		EXPECT_EQ(c.totals, bodies(records, 0x29));
		EXPECT_EQ(c.sums, bodies(records, 0x17));
		zend_hash_clean(c.table);
	}
}

TEST_F(MetricPacket, NamesOutgoingCallsWithWhatTheCalleeAnswered)
{
	char name[] = "http:%2F%2Fh%2Fa/curl_exec", answer[] = "{\"id\":\"12|34\",\"action\":\"WebAction/php/index\",\"tr\":1}";
	char no_action[] = "{\"id\":\"\"}";
	add_service({name, NULL, NULL, NULL, NULL, 120, 200});
	add_service({name, NULL, answer, NULL, NULL, 0, 200});
	add_service({name, NULL, no_action, NULL, NULL, 0, 200});
	auto records = report();
	EXPECT_EQ((Texts{"http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n120",
	                 "http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n0\n12|34\nWebAction/php/index",
	                 "http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n0\n\n"}),
	          bodies(records, 0x29));
	EXPECT_EQ(Texts{"\x78\x00\x00\x00"s}, bodies(records, 0x18));
	EXPECT_EQ(Texts{}, bodies(records, 0x2D));
}

TEST_F(MetricPacket, ReportsFailedOutgoingCallsWithACode)
{
	char name[] = "n", url[] = "http://h/a?q=1?2", plain[] = "http://h/a", message[] = "say \"no\"\n", stack[] = "[\"f\"]";
	add_service({name, url, NULL, message, stack, 1, 0});
	add_service({name, plain, NULL, NULL, stack, 1, 404});
	add_service({name, NULL, NULL, message, stack, 1, 200});
	EXPECT_EQ((Texts{"External/n\n1000\n\nsay \\\"no\\\"\\n\n?q=1?2\n[\"f\"]", "External/n\n404\n404\n\n\n[\"f\"]",
	                 "External/n\n1000\n200\nsay \\\"no\\\"\\n\n\n[\"f\"]"}),
	          bodies(report(), 0x2D));
}

TEST_F(MetricPacket, LeavesTheRestOfTheTimeToTheCodeItself)
{
	ZQG(sum_db_metric) = 100;
	add_row(ZQG(nosql_redis), "GET", nosql_hash_element{30900});
	char name[] = "n";
	add_service({name, NULL, NULL, NULL, NULL, 20, 200});
	add_row(ZQG(components_hash), "PHP/Shop/checkout", component_hash_element{200, 150});
	std::string long_name = "PHP/NULL/" + std::string(300, 'n');
	add_row(ZQG(components_hash), long_name, component_hash_element{3, 0});
	Texts components = {"200\n50\nPHP/Shop/checkout", ("3\n3\n" + long_name).substr(0, 127)};

	for (int duration : {202, 203}) {
		EXPECT_EQ(components, bodies(report(duration), 0x2B)) << "nothing is left of " << duration;
	}
	components.push_back("1\n1\nPHP/NULL/remainder code");
	EXPECT_EQ(components, bodies(report(204), 0x2B));
}

TEST_F(MetricPacket, WritesTheErrorOnLinesThatItsTextsCannotBreak)
{
	SG(sapi_headers).http_response_code = 500;
	ZQG(error) = error_element_alloc("a\nb", "DB_ERROR", NULL);
	EXPECT_EQ(Texts{"1\n500\nDB_ERROR\na\\nb"}, bodies(report(), 0x2A));
	error_element_dtor(ZQG(error));
	ZQG(error) = error_element_alloc("m", "C", estrdup("[\"f(x)\"]"));
	EXPECT_EQ(Texts{"1\n500\nC\nm\n[\"f(x)\"]"}, bodies(report(), 0x2A));
}

TEST_F(MetricPacket, CarriesTheTraceOfASlowActionWithItsIds)
{
	struct {
		int enabled, child_has_tracer, duration;
		size_t traces;
	} cases[] = {{0, 1, 1000, 0}, {1, 0, 499, 0}, {1, 0, 500, 1}, {1, 1, 0, 1}};
	ZQG(transaction_id) = estrdup("t");
	for (const auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.enabled << c.child_has_tracer << " " << c.duration);
		ZQG(action_tracer_enabled) = c.enabled;
		ZQG(child_has_tracer) = c.child_has_tracer;
		auto records = report(c.duration);
		for (int type : {0x25, 0x20, 0x26}) {
			EXPECT_EQ(c.traces, bodies(records, type).size()) << type;
		}
	}
	efree(ZQG(transaction_id));
	ZQG(transaction_id) = NULL;
	auto records = report(500);
	EXPECT_EQ(Texts{}, bodies(records, 0x20));
	EXPECT_EQ(Texts{ZQG(tracer_id)}, bodies(records, 0x26)) << "one id for the whole action";
}

TEST_F(MetricPacket, SortsTracedCallsByTheirStart)
{
	ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = 1;
	ZQG(rdown_tick) = ZQG(rinit_tick) + 10000;
	add_traced_call("inner", 2000, 3000); /* calls end, and are added, from the inside out */
	add_traced_call("outer", 1000, 4000);
	add_traced_call("late", 5000, 6000);
	std::string trace = bodies(report(10), 0x25).at(0);
	size_t outer = trace.find("outer"), inner = trace.find("inner"), late = trace.find("late");
	ASSERT_NE(std::string::npos, inner) << trace;
	EXPECT_LT(outer, inner);
	EXPECT_LT(inner, late);
	EXPECT_EQ(std::string::npos, trace.substr(outer, inner - outer).find("]]")) << "inner lies inside outer: " << trace;
}

TEST_F(MetricPacket, DropsATraceThatNoLengthCanFrameAndSendsTheRest)
{
	ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = 1;
	ZQG(transaction_id) = estrdup("t");
	ZQG(action_name) = estrdup("a");
	add_traced_call(std::string(0x1000000, 'f'), 0, 1000);
	auto records = report();
	EXPECT_EQ(Texts{"a"}, bodies(records, 0x12));
	for (int type : {0x25, 0x20, 0x26}) {
		EXPECT_EQ(Texts{}, bodies(records, type)) << type;
	}
}

TEST_F(MetricPacket, IsSentUpToTheLongestLengthAndNotBeyond)
{
	const size_t others = 8 + 7 + 5 * 8; /* identity and times */
	const size_t framing = 4 + strlen("1:00:8388559:");
	for (size_t excess : {0, 1}) {
		SCOPED_TRACE(excess);
		size_t left = 0xFFFFFF - others + excess;
		add_statement("", std::string(left / 2 - framing, 'a'), 0);
		add_statement("", std::string(left - left / 2 - framing, 'b'), 0);

		std::string packet;
		std::thread reader([&] {
			char buffer[65536];
			ssize_t got;
			while ((got = read(daemon, buffer, sizeof buffer)) > 0) {
				packet.append(buffer, (size_t)got);
			}
		});
		send_metric(0 TSRMLS_CC);
		EXPECT_NE(-1, ZQG(daemon_sock)) << "the connection stays open";
		shutdown(ZQG(daemon_sock), SHUT_WR);
		reader.join();
		if (excess) {
			EXPECT_EQ("", packet);
			EXPECT_NE(std::string::npos, log().find("metric data too large: 16777216 bytes"));
		} else {
			EXPECT_EQ(2u, bodies(records_of(packet), 0x27).size());
		}
		zend_llist_clean(ZQG(sqls));
		hang_up();
		connect();
	}
}

TEST_F(MetricPacket, TakesParametersThatAreTextOrNumbers)
{
	zval *parameters = value("array('n' => -7, 5 => 'no name', 'list' => array('x'), 'null' => null, 'yes' => true, "
	                         "'half' => 0.5, \"c\\0d\" => \"e\\0f\", '' => '')");
	smart_str buffer = {NULL, 0, 0};
	add_http_params(&buffer, Z_ARRVAL_P(parameters) TSRMLS_CC);
	add_http_params(&buffer, NULL TSRMLS_CC);
	EXPECT_EQ("\x23\x00\x00\x05n: -7" "\x23\x00\x00\x06" "c: e\0f" "\x23\x00\x00\x02: "s, taken(buffer));
}

TEST_F(MetricPacket, FindsItemsOfAnAnswerWithoutParsingIt)
{
	struct {
		const char *data, *item;
		const char *value; /* null: not found */
	} cases[] = {
		{"{\"id\":\"12|34\",\"action\":\"x\"}", "\"id\"", "12|34"},
		{"{\"id\":\"12|34\",\"action\":\"x\"}", "\"action\"", "x"},
		{"{\"id\":12,\"action\":\"x\"}", "\"id\"", "action"}, /* an unquoted value is passed over */
		{"{\"id\":\"cut", "\"id\"", "cut"},
		{"{\"id\":", "\"id\"", NULL},
		{"{\"id\"", "\"id\"", NULL},
		{"{\"trId\":\"x\"}", "\"id\"", NULL},
		{"", "\"id\"", NULL},
		{NULL, "\"id\"", NULL},
		{"{}", NULL, NULL},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.data ? c.data : "null");
		char *start = NULL;
		int length = -1;
		ASSERT_EQ(c.value != NULL, get_transcation_data_item(c.data, c.item, &start, &length));
		if (c.value) {
			EXPECT_EQ(c.value, std::string(start, (size_t)length));
		}
	}
}

typedef BarePacket ProfilePacket;

TEST_F(ProfilePacket, CarriesOneEventWithItsTimeAndThread)
{
	std::string thread = " " + std::to_string(zq_thread_id()) + " ";
	ZQG(profile_end_time) = UINT64_MAX;
	for (const char *cls : {(const char *)NULL, "PDO"}) {
		uint64 before = cycle_timer() / 1000;
		thread_profile("enter function", "query", cls TSRMLS_CC);
		auto records = records_of(received());
		ASSERT_EQ(4u, records.size());
		std::string line = records[3].second;
		size_t blank = line.find(' ');
		EXPECT_EQ(thread + "enter function " + (cls ? "PDO::" : "") + "query", line.substr(blank));
		uint64 stamp = strtoull(line.c_str(), NULL, 10);
		EXPECT_GE(stamp, before);
		EXPECT_LE(stamp, cycle_timer() / 1000);
		records[3].second = "";
		EXPECT_EQ((std::vector<Record>{{0x09, ""}, {0x11, "shop"}, {0x0E, "key"}, {0x2C, ""}}), records);
	}
}

TEST_F(ProfilePacket, MakesNoConnection)
{
	ZQG(profile_end_time) = UINT64_MAX;
	hang_up();
	for (int lost : {1, 2}) {
		thread_profile("enter function", "f", NULL TSRMLS_CC);
		EXPECT_EQ(-1, ZQG(daemon_sock)) << lost;
	}
}

} // namespace
