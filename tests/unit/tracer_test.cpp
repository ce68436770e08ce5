#include "engine_fixture.h"

#include <algorithm>
#include <ctime>

#include <cJSON.h>

#include "zqp_tracer.h"
#include "zqp_webservice.h"

class Trace : public EngineTest {
protected:
	static constexpr uint64 request_start = 5000000;

	void SetUp() override
	{
		EngineTest::SetUp();
		zq_create_containers(TSRMLS_C);
		ZQG(rinit_tick) = request_start;
		ZQG(rdown_tick) = request_start + 120000;
		ZQG(action_tracer_stack_trace_threshold) = 1000000;
		ZQG(action_tracer_record_sql) = 1;
	}
	void TearDown() override
	{
		cJSON_Delete(tree);
		zq_empty_containers(TSRMLS_C);
		EngineTest::TearDown();
	}
	/* Times in us since the request's start. */
	tracer_element *add(const char *func, uint64 start, uint64 end, int type = ZQ_TRACER_PLAIN, void *data = nullptr,
	                    const char *cls = nullptr)
	{
		zq_trace_call(cls, func, nullptr, request_start + start, request_start + end, type, data TSRMLS_CC);
		return (tracer_element *)ZQG(tracer)->tail->data;
	}
	void *sql(const char *statement, const char *stack = nullptr, const char *explain = nullptr)
	{
		sql_element *element = sql_element_alloc("MySQL", statement, stack ? estrdup(stack) : nullptr,
		                                         explain ? estrdup(explain) : nullptr, 1);
		zend_llist_add_element(ZQG(sqls), element);
		efree(element);
		return ZQG(sqls)->tail->data;
	}
	webservice_element *service(const char *uri, const char *transaction_data)
	{
		webservice_element *element = webservice_element_alloc(nullptr, "curl_exec", uri, nullptr, transaction_data);
		zend_llist_add_element(ZQG(webservices), element);
		efree(element);
		return (webservice_element *)ZQG(webservices)->tail->data;
	}
	std::string json(int server = 120)
	{
		zend_llist_sort(ZQG(tracer), tracer_element_cmp TSRMLS_CC);
		smart_str text = {};
		tracer_list_to_json(server, ZQG(tracer), &text TSRMLS_CC);
		return taken(text);
	}
	/* The trace, parsed: control characters are raw in it by agreement, which the parser may not accept. */
	cJSON *parsed()
	{
		std::string text = json();
		std::replace_if(text.begin(), text.end(), [](char ch) { return ch > 0 && ch < 0x20; }, ' ');
		cJSON_Delete(tree);
		tree = cJSON_ParseWithOpts(text.c_str(), nullptr, 1);
		EXPECT_NE(tree, nullptr) << text;
		return tree;
	}
	/* func(children...) */
	static std::string shape(const cJSON *node)
	{
		std::string text = cJSON_GetArrayItem(node, 6)->valuestring, children;
		const cJSON *child;
		cJSON_ArrayForEach(child, cJSON_GetArrayItem(node, 8))
		{
			children += (children.empty() ? "" : " ") + shape(child);
		}
		return children.empty() ? text : text + "(" + children + ")";
	}
	std::string shape()
	{
		cJSON *root = parsed();
		return root ? shape(root) : "";
	}
	cJSON *tree = nullptr;
};

TEST_F(Trace, PlacesCallsByTheirTimeSpans)
{
	struct Call { const char *func; uint64 start_ms, end_ms; };
	const struct { std::vector<Call> calls; const char *shape; } cases[] = {
		{{}, "execute"},
		{{{"b", 2, 5}, {"c", 5, 8}, {"a", 0, 10}}, "execute(a(b c))"},
		{{{"a", 0, 10}, {"b", 10, 20}}, "execute(a b)"},
		{{{"c", 2, 4}, {"b", 1, 9}, {"d", 9, 10}, {"a", 0, 10}, {"e", 11, 12}}, "execute(a(b(c) d) e)"},
		{{{"inner", 0, 5}, {"middle", 0, 10}, {"outer", 0, 15}}, "execute(outer(middle(inner)))"},
		{{{"middle", 0, 10}, {"outer", 0, 15}, {"inner", 0, 5}}, "execute(outer(middle(inner)))"},
		{{{"outer", 0, 15}, {"inner", 0, 5}, {"middle", 0, 10}}, "execute(outer(middle(inner)))"},
		{{{"a", 110, 130}, {"b", 119, 125}}, "execute(a(b))"},
		{{{"late", 120, 150}, {"below", 130, 140}, {"beside", 160, 170}}, "execute"},
	};
	for (const auto &c : cases) {
		zend_llist_clean(ZQG(tracer));
		for (const auto &call : c.calls) {
			add(call.func, call.start_ms * 1000, call.end_ms * 1000);
		}
		EXPECT_EQ(shape(), c.shape);
	}
}

TEST_F(Trace, LeavesOutQuickCallsBelowTheThirdLevel)
{
	const auto nest = [this](uint64 duration, void *data) {
		const char *names[] = {"l1", "l2", "l3", "l4", "l5"};
		for (uint64 level = 0; level < 5; level++) {
			bool last = level == 4;
			add(names[level], 10 + level, 10 + duration - level, last && data ? ZQ_TRACER_SQL : ZQ_TRACER_PLAIN,
			    last ? data : nullptr);
		}
	};
	nest(900, nullptr);
	EXPECT_EQ(shape(), "execute(l1(l2(l3)))");
	zend_llist_clean(ZQG(tracer));
	nest(900, sql("SELECT 1"));
	EXPECT_EQ(shape(), "execute(l1(l2(l3(l4(l5)))))");
	zend_llist_clean(ZQG(tracer));
	nest(1008, nullptr); /* l4 takes 1002 us, l5 exactly 1000 */
	EXPECT_EQ(shape(), "execute(l1(l2(l3(l4(l5)))))");
	add("m", 15, 16); /* inside l5 */
	add("n", 1008, 1009);
	EXPECT_EQ(shape(), "execute(l1(l2(l3(l4(l5)))))");
}

TEST_F(Trace, RaisesTheThresholdBeyondAHundredCalls)
{
	for (const char *level : {"l1", "l2", "l3"}) {
		add(level, 0, 60000);
	}
	add("long", 1000, 12000);
	add("short", 20000, 30000);
	for (int i = 5; i < 100; i++) {
		add("tick", 30000 + i, 30000 + i + 1);
	}
	const auto names = [this](const char *name) { return json(1000).find(name) != std::string::npos; };
	EXPECT_TRUE(names("long") && names("short"));
	EXPECT_FALSE(names("tick"));
	add("tick", 31000, 31001);
	EXPECT_EQ(zend_llist_count(ZQG(tracer)), 101);
	EXPECT_TRUE(names("long"));
	EXPECT_FALSE(names("short")); /* 10 ms are 1 % of 1000 ms and no more */
}

TEST_F(Trace, WritesStatementsAsConfigured)
{
	const char node[] = R"([3,15,"Database MySQL/users/SELECT","",1,"PDO","query",{)";
	const struct { int record_sql; const char *file; const char *params; } cases[] = {
		{0, nullptr, ""},
		{0, "/a/b.php", R"_("partialtrace":["PDO.query(/a/b.php:12)"])_"},
		{1, "/a/b.php", R"_("sql":"SELECT 'x' FROM users","stacktrace":["f(x:1)"],"explainPlan":[["id"],[1]])_"},
		{2, nullptr, R"_("sql":"SELECT '?' FROM users","stacktrace":["f(x:1)"],"explainPlan":[["id"],[1]])_"},
	};
	for (const auto &c : cases) {
		zend_llist_clean(ZQG(tracer));
		tracer_element *call = add("query", 3999, 15000, ZQ_TRACER_SQL,
		                           sql("SELECT 'x' FROM users", "[\"f(x:1)\"]", "[[\"id\"],[1]]"), "PDO");
		call->filename = c.file ? estrdup(c.file) : nullptr;
		call->lineno = 12;
		ZQG(action_tracer_record_sql) = c.record_sql;
		EXPECT_EQ(json(), R"([0,120,"","",1,"PHP","execute",{},[)" + std::string(node) + c.params + "},[]]]]");
	}
}

TEST_F(Trace, WritesCallsThatBeganBeforeTheRequestWithNegativeTimes)
{
	zq_trace_call("A\\B", "f", nullptr, request_start - 2000, request_start + 1000, 0, nullptr TSRMLS_CC);
	EXPECT_EQ(json(), R"([0,120,"","",1,"PHP","execute",{},[[-2,1,"","",1,"A\\B","f",{},[]]]])");
}

TEST_F(Trace, KeepsWhatACalleeAnsweredOnlyWhenItIsAnObject)
{
	ZQG(transaction_id) = estrdup("a\"b");
	const struct { std::string data; bool kept; } cases[] = {
		{"{}", true},
		{R"({"id":"x|1","tr":"9f","time":{"duration":-1.50e+3,"q":0},"l":[true,null,"\u00e9\""]})", true},
		{R"( {"a" : 1} )", true},
		{"", false}, {"[1]", false}, {"7", false}, {"{", false}, {"{\"a\":1}}", false}, {"{\"a\":1}x", false},
		{"{'a':1}", false}, {"{\"a\":01}", false}, {"{\"a\":1.}", false}, {"{\"a\":-}", false}, {"{\"a\":.5}", false},
		{"{\"a\":\"\x01\"}", false}, {"{\"a\":\"\xff\"}", false}, {"{\x0b}", false}, {"\xef\xbb\xbf{}", false},
		{std::string(5000, '{'), false},
	};
	for (const auto &c : cases) {
		zend_llist_clean(ZQG(tracer));
		add("curl_exec", 0, 9000, ZQ_TRACER_EXTERNAL, service("http://h/p", c.data.c_str()));
		std::string params = R"({"txId":"a\"b")" + (c.kept ? ",\"txData\":" + c.data : "") + "}";
		EXPECT_EQ(json(), R"([0,120,"","",1,"PHP","execute",{},[[0,9,"External/http:%2F%2Fh%2Fp/curl_exec","",1,"",)"
		                  R"("curl_exec",)" + params + ",[]]]]");
	}
}

TEST_F(Trace, StaysJsonWhateverNamesHold)
{
	const char *hostile[] = {"quote\"", "back\\slash", "line\nbreak", "\x01\x1f", "bad\xff tail", "\xc3\xa9", "", "]}],["};
	for (const char *text : hostile) {
		SCOPED_TRACE(::testing::PrintToString(text));
		zend_llist_clean(ZQG(tracer));
		add(text, 0, 9000, ZQ_TRACER_PLAIN, nullptr, text)->filename = estrdup(text);
		webservice_element *called = service((std::string("http://h/") + text).c_str(), "{}");
		called->url = estrdup(text);
		add("s", 10000, 11000, ZQ_TRACER_EXTERNAL, called, text)->filename = estrdup(text);
		std::string statement = std::string("SELECT '") + text + "' FROM \"" + text + "\"";
		add("q", 20000, 21000, ZQ_TRACER_SQL, sql(statement.c_str()), text);
		EXPECT_EQ(cJSON_GetArraySize(cJSON_GetArrayItem(parsed(), 8)), 3);
	}
}

TEST_F(Trace, WritesAValidExternalNameAsItIsAndEscapesAnyOther)
{
	const struct { const char *uri, *name; } cases[] = {
		{"h\xc3\xa9", "External/h\xc3\xa9/curl_exec"},
		{"\\u00e9\\n", "External/\\u00e9\\n/curl_exec"},
		{"\\u00", "External/\\\\u00/curl_exec"},
		{"\\x", "External/\\\\x/curl_exec"},
		{"a\"", "External/a\\\"/curl_exec"},
		{"a\xff", "External/a"},
	};
	for (const auto &c : cases) {
		zend_llist_clean(ZQG(tracer));
		add("f", 0, 9000, ZQ_TRACER_EXTERNAL, service(c.uri, nullptr));
		EXPECT_NE(json().find(std::string("[[0,9,\"") + c.name + "\",\"\",1"), std::string::npos) << c.uri;
	}
}

TEST_F(Trace, KeepsABoundedNumberOfCallsAndWritesThemInLinearTime)
{
	ZQG(rdown_tick) = request_start + 200000;
	clock_t begin = clock();
	for (uint64 i = 0; i < 100002; i++) {
		add("f", i, i + 1);
	}
	EXPECT_EQ(zend_llist_count(ZQG(tracer)), 100000);
	EXPECT_EQ(ZQG(recorded_limit_logged), 1);
	std::string text = json();
	EXPECT_EQ(std::count(text.begin(), text.end(), '{'), 100001);
	EXPECT_LT((clock() - begin) / CLOCKS_PER_SEC, 5); /* walking along the siblings would take a minute */
}

TEST_F(Trace, NeedsNoStackForDeepNesting)
{
	ZQG(rdown_tick) = request_start + 300000;
	for (uint64 i = 0; i < 100000; i++) {
		add("f", i, 300000 - i, i == 99999 ? ZQ_TRACER_SQL : ZQ_TRACER_PLAIN, i == 99999 ? sql("SELECT 1") : nullptr);
	}
	std::string text = json();
	EXPECT_EQ(std::count(text.begin(), text.end(), '{'), 100001);
	EXPECT_EQ(std::count(text.begin(), text.end(), '['), std::count(text.begin(), text.end(), ']'));
}

TEST_F(Trace, NotesTheCallerOfSlowCallsOnly)
{
	ZQG(action_tracer_stack_trace_threshold) = 2;
	probe("\n\n", [this](zend_execute_data *frame) {
		zq_trace_call(nullptr, "quick", frame, request_start, request_start + 1999, 0, nullptr TSRMLS_CC);
		zq_trace_call(nullptr, "slow", frame, request_start, request_start + 2000, 0, nullptr TSRMLS_CC);
	});
	EXPECT_EQ(((tracer_element *)ZQG(tracer)->head->data)->filename, nullptr);
	tracer_element *slow = (tracer_element *)ZQG(tracer)->tail->data;
	EXPECT_STREQ(slow->filename, "test");
	EXPECT_EQ(slow->lineno, 3);
}
