/* The metric packet and the thread-profile packet, byte for byte, from lists built by hand. The expected bytes are
 * literals: nothing of the encoder is used to make them. */
#include <sys/socket.h>
#include <time.h>
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

struct Record {
	int type;
	std::string body;
	bool operator==(const Record &) const = default;
};

void PrintTo(const Record &record, std::ostream *out)
{
	*out << "0x" << std::hex << record.type << std::dec << " " << testing::PrintToString(record.body);
}

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

std::vector<std::string> bodies(const std::vector<Record> &records, int type)
{
	std::vector<std::string> found;
	for (const Record &record : records) {
		if (record.type == type) {
			found.push_back(record.body);
		}
	}
	return found;
}

typedef std::vector<std::string> Texts;

template <typename T> zend_llist *new_list(llist_dtor_func_t dtor)
{
	zend_llist *list = (zend_llist *)emalloc(sizeof(zend_llist));
	zend_llist_init(list, sizeof(T), dtor, 0);
	return list;
}

HashTable *new_table(dtor_func_t dtor)
{
	HashTable *table = (HashTable *)emalloc(sizeof(HashTable));
	zend_hash_init(table, 8, NULL, dtor, 0);
	return table;
}

template <typename T> T *add_row(HashTable *table, const char *key, T value)
{
	T *element = (T *)emalloc(sizeof(T));
	*element = value;
	zend_hash_update(table, key, (uint)strlen(key) + 1, &element, sizeof element, NULL);
	return element;
}

char *copy(const char *text) { return text ? estrdup(text) : NULL; }

/* An action of which nothing is known but who it belongs to, and a daemon's end of the socket. */
class MetricPacket : public EngineTest {
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
		if (!ZQG(sqls)) {
			ZQG(sqls) = new_list<sql_element>(sql_element_dtor);
		}
		sql_element element = {db, estrndup(statement.data(), (uint)statement.size()), copy(stack), copy(explain), ms};
		zend_llist_add_element(ZQG(sqls), &element);
	}

	void add_service(webservice_element element)
	{
		if (!ZQG(webservices)) {
			ZQG(webservices) = new_list<webservice_element>(webservice_element_dtor);
		}
		for (char **text : {&element.name, &element.url, &element.transaction_data, &element.error_msg, &element.stack}) {
			*text = copy(*text);
		}
		zend_llist_add_element(ZQG(webservices), &element);
	}

	void add_traced_call(const std::string &function, uint64 start, uint64 end)
	{
		if (!ZQG(tracer)) {
			ZQG(tracer) = new_list<tracer_element>(tracer_element_dtor);
		}
		tracer_element element = {};
		element.func = estrndup(function.data(), (uint)function.size());
		element.start = ZQG(rinit_tick) + start;
		element.end = ZQG(rinit_tick) + end;
		zend_llist_add_element(ZQG(tracer), &element);
	}

	typedef std::vector<std::pair<const char *, const char *>> Variables;

	void set_variables(int kind, const Variables &variables)
	{
		zval *&array = PG(http_globals)[kind];
		if (array) {
			zval_ptr_dtor(&array);
		}
		MAKE_STD_ZVAL(array);
		array_init(array);
		for (const auto &[name, text] : variables) {
			add_assoc_string(array, name, (char *)text, 1);
		}
	}

	void set_request(const char *uri, const Variables &server, const Variables &get, const Variables &post)
	{
		SG(request_info).request_uri = (char *)uri;
		set_variables(TRACK_VARS_SERVER, server);
		set_variables(TRACK_VARS_GET, get);
		set_variables(TRACK_VARS_POST, post);
	}

	static std::string log()
	{
		std::ifstream file(runtime_root() + "/log/quorbit/php-agent.log");
		return {std::istreambuf_iterator<char>(file), {}};
	}

	int daemon = -1;
	int was_cli = 0;
};

TEST_F(MetricPacket, OfAnEmptyActionHoldsItsIdentityAndTimes)
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

TEST_F(MetricPacket, TellsProcessorTimeSinceTheActionBeganAndSystemTimeAsSuch)
{
	uint64 user_before, system_before, user_after, system_after;
	long pages;
	ASSERT_EQ(0, zq_read_stat(zq_thread_id(), &user_before, &system_before, &pages));
	ZQG(rinit_cpu) = 0;
	auto records = report();
	ASSERT_EQ(0, zq_read_stat(zq_thread_id(), &user_after, &system_after, &pages));
	int used, system;
	memcpy(&used, bodies(records, 0x1A).at(0).data(), 4);
	memcpy(&system, bodies(records, 0x1B).at(0).data(), 4);
	EXPECT_GE(used, (int)(user_before + system_before));
	EXPECT_LE(used, (int)(user_after + system_after));
	EXPECT_GE(system, (int)system_before);
	EXPECT_LE(system, (int)system_after);
}

TEST_F(MetricPacket, KeepsTheOrderOfItsRecords)
{
	g_cli = 0;
	ZQG(action_name) = estrdup("WebAction/URI/x");
	ZQG(action_tracer_enabled) = ZQG(child_has_tracer) = ZQG(capture_params) = 1;
	ZQG(transaction_id) = estrdup("abc");
	ZQG(error) = error_element_alloc("m", "C", NULL);
	add_statement("test", "SELECT 1", 12);
	for (HashTable **table : {&ZQG(nosql_memcc), &ZQG(nosql_mongo), &ZQG(nosql_redis)}) {
		*table = new_table(nosql_hash_element_dtor);
		add_row(*table, "k", nosql_hash_element{5000});
	}
	char name[] = "n", stack[] = "[]";
	add_service({name, NULL, NULL, NULL, stack, 7, 0});
	ZQG(components_hash) = new_table(component_hash_element_dtor);
	add_row(ZQG(components_hash), "PHP/NULL/f", component_hash_element{9, 2});
	add_traced_call("f", 0, 1000);
	set_request("/x?a=1", {{"HTTP_REFERER", "r"}, {"HTTP_USER_AGENT", "u"}}, {{"a", "1"}}, {{"b", "2"}});

	std::vector<int> types;
	for (const Record &record : report(1000)) {
		types.push_back(record.type);
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
		{1, "", NULL, NULL, "2:120:8:SELECT 1"},
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
	add_statement("test", "SELECT 1", 12);
	send_metric(0 TSRMLS_CC);
	EXPECT_NE(std::string::npos, received().find("\x27\x00\x00\x14" "2:124:test8:SELECT 1"s));
}

TEST_F(MetricPacket, SumsStoresInWholeMillisecondsPerOperation)
{
	std::string long_key(300, 'k');
	struct {
		HashTable **table;
		std::vector<std::pair<std::string, uint64>> rows;
		Texts totals, sums;
	} cases[] = {
		{&ZQG(nosql_memcc), {{"GET", 12999}}, {"Memcached\n\nGET\n12"}, {"12\nMemcached"}},
		{&ZQG(nosql_redis), {{"HSET", 999}, {"GET", 999}}, {"Redis\n\nHSET\n0", "Redis\n\nGET\n0"}, {}},
		{&ZQG(nosql_redis), {{"", 1000}}, {"Redis\n\n\n1"}, {"1\nRedis"}},
		{&ZQG(nosql_mongo), {{"shop.users\nFIND", 3000}, {"DROP", 1999}}, {"MongoDB\nshop.users\nFIND\n3", "MongoDB\nDROP\n1"}, {"4\nMongoDB"}},
		{&ZQG(nosql_mongo), {{long_key, 5000}}, {("MongoDB\n" + long_key).substr(0, 127)}, {"5\nMongoDB"}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.totals[0]);
		*c.table = new_table(nosql_hash_element_dtor);
		for (const auto &[key, us] : c.rows) {
			add_row(*c.table, key.c_str(), nosql_hash_element{us});
		}
		auto records = report();
		EXPECT_EQ(c.totals, bodies(records, 0x29));
		EXPECT_EQ(c.sums, bodies(records, 0x17));
		zend_hash_destroy(*c.table);
		efree(*c.table);
		*c.table = NULL;
	}
}

TEST_F(MetricPacket, NamesOutgoingCallsWithWhatTheCalleeAnswered)
{
	char name[] = "http:%2F%2Fh%2Fa/curl_exec", answer[] = "{\"id\":\"12|34\",\"action\":\"WebAction/php/index\",\"tr\":1}";
	char no_action[] = "{\"id\":\"\"}", nothing[] = "";
	add_service({name, NULL, NULL, NULL, NULL, 120, 200});
	add_service({name, NULL, answer, NULL, NULL, 0, 200});
	add_service({name, NULL, no_action, NULL, NULL, 0, 200});
	add_service({name, NULL, nothing, NULL, NULL, -1, 200});
	auto records = report();
	EXPECT_EQ((Texts{"http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n120",
	                 "http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n0\n12|34\nWebAction/php/index",
	                 "http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n0\n\n",
	                 "http\nhttp:%2F%2Fh%2Fa/curl_exec\n\n-1\n\n"}),
	          bodies(records, 0x29));
	EXPECT_EQ(Texts{"\x77\x00\x00\x00"s}, bodies(records, 0x18));
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
	ZQG(nosql_redis) = new_table(nosql_hash_element_dtor);
	add_row(ZQG(nosql_redis), "GET", nosql_hash_element{30900});
	char name[] = "n";
	add_service({name, NULL, NULL, NULL, NULL, 20, 200});
	ZQG(components_hash) = new_table(component_hash_element_dtor);
	add_row(ZQG(components_hash), "PHP/Shop/checkout", component_hash_element{200, 150});
	std::string long_name = "PHP/NULL/" + std::string(300, 'n');
	add_row(ZQG(components_hash), long_name.c_str(), component_hash_element{3, 0});
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
		const char *transaction_id;
		std::vector<int> types;
	} cases[] = {
		{0, 1, 1000, "t", {}},
		{1, 0, 499, "t", {}},
		{1, 0, 500, "t", {0x25, 0x20, 0x26}},
		{1, 1, 0, "t", {0x25, 0x20, 0x26}},
		{1, 1, 0, NULL, {0x25, 0x26}},
	};
	ZQG(tracer) = new_list<tracer_element>(tracer_element_dtor);
	for (const auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.enabled << c.child_has_tracer << " " << c.duration);
		ZQG(action_tracer_enabled) = c.enabled;
		ZQG(child_has_tracer) = c.child_has_tracer;
		ZQG(transaction_id) = copy(c.transaction_id);
		std::vector<int> types;
		for (const Record &record : report(c.duration)) {
			if (record.type == 0x25 || record.type == 0x20 || record.type == 0x26) {
				types.push_back(record.type);
			}
		}
		EXPECT_EQ(c.types, types);
		if (ZQG(transaction_id)) {
			efree(ZQG(transaction_id));
			ZQG(transaction_id) = NULL;
		}
	}
	EXPECT_EQ(Texts{ZQG(tracer_id)}, bodies(report(500), 0x26)) << "one id for the whole action";
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
		ZQG(sqls) = new_list<sql_element>(sql_element_dtor);
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
		zend_llist_destroy(ZQG(sqls));
		efree(ZQG(sqls));
		ZQG(sqls) = NULL;
		hang_up();
		connect();
	}
}

TEST_F(MetricPacket, IsLostWithTheConnectionWhenTheDaemonHungUp)
{
	hang_up();
	send_metric(0 TSRMLS_CC); /* and no SIGPIPE */
	EXPECT_EQ(-1, ZQG(daemon_sock));
	send_metric(0 TSRMLS_CC); /* nobody listens */
	EXPECT_EQ(-1, ZQG(daemon_sock));
}

TEST_F(MetricPacket, OfAWebRequestTellsWhatWasAskedAndHowItEnded)
{
	g_cli = 0;
	SG(sapi_headers).http_response_code = 404;
	std::string pid = "threadName: pid-" + std::to_string(getpid());

	set_request("/x?a=1", {{"HTTP_REFERER", "http://h/\nb"}, {"HTTP_USER_AGENT", ""}}, {{"a", "1"}}, {});
	auto records = report();
	EXPECT_EQ(Texts{"/x?a=1"}, bodies(records, 0x21));
	EXPECT_EQ((Texts{"referer: http://h/\nb", pid, "httpStatus: 404"}), bodies(records, 0x24));
	EXPECT_EQ(Texts{}, bodies(records, 0x23)) << "parameters are for those who ask";

	ZQG(capture_params) = 1;
	set_request("/x", {}, {{"a", "1"}}, {{"b", "2"}});
	EXPECT_EQ((Texts{"a: 1", "b: 2"}), bodies(report(), 0x23));

	g_cli = 1;
	records = report();
	for (int type : {0x21, 0x23, 0x24}) {
		EXPECT_EQ(Texts{}, bodies(records, type)) << "command line, type " << type;
	}
}

TEST_F(MetricPacket, TakesParametersThatAreTextOrNumbersAndNotIgnored)
{
	ZQG(ignored_params) = estrdup("a,b,,pass");
	std::string long_value(5000, 'v');
	zval *parameters = value("array('a' => '1', 'ab' => '2', 'B' => '3', 'pass' => 'x', 'n' => -7, 5 => 'no name', 'list' => "
	                        "array('x'), 'null' => null, 'yes' => true, 'half' => 0.5, \"c\\0d\" => \"e\\0f\", '' => '', "
	                        "'long' => str_repeat('v', 5000), 'fits' => str_repeat('v', 4096))");
	smart_str buffer = {NULL, 0, 0};
	add_http_params(&buffer, Z_ARRVAL_P(parameters) TSRMLS_CC);
	std::string packet = "\x0B\x00\x00\x00"s;
	size_t length = buffer.len;
	packet[1] = (char)(length >> 16), packet[2] = (char)(length >> 8), packet[3] = (char)length;
	packet.append(buffer.c, buffer.len);
	zq_buffer_free(&buffer);
	EXPECT_EQ((Texts{"ab: 2", "B: 3", "n: -7", "c: e\0f"s, ": ", "long: " + long_value.substr(0, 4096), "fits: " + long_value.substr(0, 4096)}),
	          bodies(records_of(packet), 0x23));
	add_http_params(&buffer, NULL TSRMLS_CC);
	EXPECT_EQ(0u, buffer.len);
}

TEST_F(MetricPacket, FindsItemsOfAnAnswerWithoutParsingIt)
{
	struct {
		const char *data, *item;
		const char *value; /* null: not found */
	} cases[] = {
		{"{\"id\":\"12|34\",\"action\":\"x\"}", "\"id\"", "12|34"},
		{"{\"id\":\"12|34\",\"action\":\"x\"}", "\"action\"", "x"},
		{"{\"id\":\"\"}", "\"id\"", ""},
		{"{\"id\":12,\"action\":\"x\"}", "\"id\"", "action"}, /* an unquoted value is passed over */
		{"{\"id\":12}", "\"id\"", NULL},
		{"{\"id\":\"cut", "\"id\"", "cut"},
		{"{\"id\":\"", "\"id\"", ""},
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

class ProfilePacket : public MetricPacket {
protected:
	static uint64 seconds()
	{
		struct timespec now;
		clock_gettime(CLOCK_MONOTONIC, &now);
		return (uint64)now.tv_sec;
	}
};

TEST_F(ProfilePacket, CarriesOneEventWithItsTimeAndThread)
{
	struct {
		const char *event, *name, *cls;
		std::string tail;
	} cases[] = {
		{"enter function", "Cart::total", NULL, "enter function Cart::total"},
		{"leave function", "query", "PDO", "leave function PDO::query"},
	};
	std::string thread = " " + std::to_string(zq_thread_id()) + " ";
	ZQG(profile_end_time) = UINT64_MAX;
	for (const auto &c : cases) {
		uint64 before = cycle_timer() / 1000;
		thread_profile(c.event, c.name, c.cls TSRMLS_CC);
		uint64 after = cycle_timer() / 1000;
		std::string packet = received();
		auto records = records_of(packet);
		ASSERT_EQ(4u, records.size());
		EXPECT_EQ((Record{0x09, ""}), records[0]);
		EXPECT_EQ((Record{0x11, "shop"}), records[1]);
		EXPECT_EQ((Record{0x0E, "key"}), records[2]);
		EXPECT_EQ(0x2C, records[3].type);
		size_t blank = records[3].body.find(' ');
		EXPECT_EQ(thread + c.tail, records[3].body.substr(blank));
		uint64 stamp = strtoull(records[3].body.c_str(), NULL, 10);
		EXPECT_GE(stamp, before);
		EXPECT_LE(stamp, after);
	}
}

TEST_F(ProfilePacket, CutsALineAt255Bytes)
{
	ZQG(profile_end_time) = UINT64_MAX;
	thread_profile("enter function", std::string(1000, 'f').c_str(), NULL TSRMLS_CC);
	EXPECT_EQ(255u, records_of(received()).at(3).body.size());
}

TEST_F(ProfilePacket, IsNotSentAfterTheEndOrWithoutAConnection)
{
	ZQG(profile_end_time) = seconds() - 1;
	thread_profile("enter function", "f", NULL TSRMLS_CC);
	EXPECT_EQ("", received());

	ZQG(profile_end_time) = UINT64_MAX;
	hang_up();
	thread_profile("enter function", "f", NULL TSRMLS_CC);
	EXPECT_EQ(-1, ZQG(daemon_sock));
	thread_profile("enter function", "f", NULL TSRMLS_CC);
	EXPECT_EQ(-1, ZQG(daemon_sock)) << "an event makes no connection";
}

} // namespace
