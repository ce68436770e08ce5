#include "engine_fixture.h"

#include <algorithm>
#include <ctime>
#include <regex>

#include "zqp_tracer.h"
#include "zqp_webservice.h"
#include "zqp_wrapper_database.h"

class Trace : public EngineTest {
protected:
	static constexpr uint64 request_start = 5000000;

	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(rinit_tick) = request_start;
		ZQG(rdown_tick) = request_start + 120000;
		ZQG(action_tracer_stack_trace_threshold) = 1000000;
	}
	/* Times in us since the request's start. */
	tracer_element *add(const std::string &func, uint64 start, uint64 end, int type = ZQ_TRACER_PLAIN, void *data = nullptr)
	{
		zq_trace_call(nullptr, func.c_str(), nullptr, request_start + start, request_start + end, type, data TSRMLS_CC);
		return (tracer_element *)ZQG(tracer)->tail->data;
	}
	void *service(const std::string &uri, const std::string &answer)
	{
		webservice_element *element = webservice_element_alloc(nullptr, "curl_exec", uri.c_str(), nullptr, answer.c_str());
		zq_list_append(ZQG(webservices), element);
		return element;
	}
	/* The trace of the calls added since the last one. */
	std::string json()
	{
		zend_llist_sort(ZQG(tracer), tracer_element_cmp TSRMLS_CC);
		smart_str text = {};
		tracer_list_to_json(120, ZQG(tracer), &text TSRMLS_CC);
		zend_llist_clean(ZQG(tracer));
		return taken(text);
	}
	/* The names of the calls, each with those inside it in parentheses. */
	std::string shape()
	{
		std::string text = std::regex_replace(json(), std::regex(R"re(\[-?\d+,-?\d+,"[^"]*","",1,"[^"]*","(\w+)",\{[^}]*\},\[)re"), "$1(");
		return std::regex_replace(text, std::regex("\\]\\]"), ")");
	}
};

TEST_F(Trace, TellsThePlaceOfCallsThatTookTheThreshold)
{
	std::string places;
	at_probe([&](zend_execute_data *frame) {
		ZQG(action_tracer_stack_trace_threshold) = 10;
		for (uint64 us : {9999, 10000}) {
			zq_trace_call(nullptr, "f", frame, request_start, request_start + us, ZQ_TRACER_PLAIN, nullptr TSRMLS_CC);
			auto *element = (tracer_element *)ZQG(tracer)->tail->data;
			places += (element->filename ? element->filename : "none") + (":" + std::to_string(element->lineno)) + " ";
		}
	});
	run("\nprobe();");
	EXPECT_EQ(places, "none:0 test:2 ");
}

TEST_F(Trace, PlacesCallsByTheirTimeSpans)
{
	struct Call { const char *func; uint64 start_ms, end_ms; };
	const struct { std::vector<Call> calls; const char *shape; } cases[] = {
		{{}, "execute()"},
		{{{"c", 2, 4}, {"b", 1, 9}, {"d", 9, 10}, {"a", 0, 10}, {"e", 10, 12}}, "execute(a(b(c()),d()),e())"},
		{{{"middle", 0, 10}, {"outer", 0, 15}, {"inner", 0, 5}}, "execute(outer(middle(inner())))"},
		{{{"outer", 0, 15}, {"inner", 0, 5}, {"middle", 0, 10}}, "execute(outer(middle(inner())))"},
		{{{"a", 110, 130}, {"b", 119, 125}}, "execute(a(b()))"},
		{{{"f", 0, 9}, {"e", 0, 9}, {"d", 0, 9}, {"c", 0, 9}, {"b", 0, 9}, {"a", 0, 9}}, "execute(a(b(c(d(e(f()))))))"},
		{{{"late", 120, 150}, {"below", 130, 140}, {"beside", 160, 170}}, "execute()"},
	};
	for (const auto &c : cases) {
		for (const auto &call : c.calls) {
			add(call.func, call.start_ms * 1000, call.end_ms * 1000);
		}
		EXPECT_EQ(shape(), c.shape);
	}
}

TEST_F(Trace, LeavesOutQuickCallsBelowTheThirdLevelThatLeadToNoRecord)
{
	const struct { uint64 us; bool has_record; const char *shape; } cases[] = {
		{900, false, "execute(l1(l2(l3())))"},
		{900, true, "execute(l1(l2(l3(l4(l5())))))"},
		{1008, false, "execute(l1(l2(l3(l4(l5())))))"}, /* l4 takes 1002 us, l5 exactly 1000 */
	};
	for (const auto &c : cases) {
		for (uint64 level = 1; level <= 5; level++) {
			bool record = level == 5 && c.has_record;
			add("l" + std::to_string(level), 9 + level, 11 + c.us - level, record ? ZQ_TRACER_EXTERNAL : 0, record ? service("h", "") : nullptr);
		}
		add("in l5", 15, 16);
		EXPECT_EQ(shape(), c.shape);
	}
}

TEST_F(Trace, KeepsWhatACalleeAnsweredOnlyWhenItIsAnObject)
{
	ZQG(transaction_id) = estrdup("a\"b");
	const std::pair<std::string, bool> cases[] = {
		{"{}", true}, {R"({"id":"x|1","tr":"9f","time":{"duration":-1.50e+3,"q":0},"l":[true,null,"\u00e9\""]})", true}, {R"( {"a" : 1} )", true},
		{"", false}, {"[1]", false}, {"7", false}, {"{", false}, {"{\"a\":1}}", false}, {"{\"a\":1}x", false}, {"{'a':1}", false},
		{"{\"a\":01}", false}, {"{\"a\":1.}", false}, {"{\"a\":-}", false}, {"{\"a\":.5}", false}, {"{\"a\":\"\x01\"}", false},
		{"{\"a\":\"\xff\"}", false}, {"{\x0b}", false}, {"\xef\xbb\xbf{}", false}, {std::string(5000, '{'), false},
		{"{\"a\":1e999}", false}, {"{\"a\":-1" + std::string(400, '0') + "}", false}, {"{\"a\":[1e308,0e999]}", true}, /* infinite */
	};
	for (const auto &[data, kept] : cases) {
		add("f", -2000, 9000, ZQ_TRACER_EXTERNAL, service("http://h/p", data)); /* began before the request */
		EXPECT_EQ(json(), R"([0,120,"","",1,"PHP","execute",{},[[-2,9,"External/http:%2F%2Fh%2Fp/curl_exec","",1,"","f",{"txId":"a\"b")" +
		                  (kept ? ",\"txData\":" + data : "") + "},[]]]]");
	}
}

TEST_F(Trace, NamesEachOfTwoEqualStatementsByItsTextAsRun)
{
	zq_stack_data call = {};
	call.func = const_cast<char *>("f");
	ZQG(action_tracer_enabled) = 1;
	ZQG(action_tracer_record_sql) = 2;
	ZQG(prepared_sql) = estrdup("SELECT 7 FROM t1");
	for (uint64 start : {10, 40}) {
		zq_record_sql(&sql_mysql_prepared, &call, request_start + start * 1000, request_start + start * 1000 + 30000 TSRMLS_CC);
	}
	const std::string node = R"re(,"Database MySQL/t1/SELECT","",1,"","f",{"sql":"SELECT ? FROM t?"},[]])re";
	EXPECT_EQ(json(), R"([0,120,"","",1,"PHP","execute",{},[[10,40)" + node + ",[40,70" + node + "]]");
}

TEST_F(Trace, WritesAValidExternalNameAsItIsAndEscapesAnyOther)
{
	const auto name = [this](const std::string &uri) {
		add("f", 0, 9000, ZQ_TRACER_EXTERNAL, service(uri, ""));
		const char before[] = R"([0,120,"","",1,"PHP","execute",{},[[0,9,"External/)", behind[] = R"(","",1,"","f",{"txId":""},[]]]])";
		std::string text = json();
		return text.substr(strlen(before), text.size() - strlen(before) - strlen(behind));
	};
	expect_made(name, {
		{"h\xc3\xa9", "h\xc3\xa9/curl_exec"}, {"\\u00e9\\n", "\\u00e9\\n/curl_exec"}, {"\\u00", "\\\\u00/curl_exec"},
		{"\\x", "\\\\x/curl_exec"}, {"a\"", "a\\\"/curl_exec"}, {"a\xff", "a"},
	});
}

TEST_F(Trace, KeepsABoundedNumberOfCallsWithoutStackAndInLinearTime)
{
	ZQG(rdown_tick) = request_start + 300000;
	clock_t begin = clock();
	for (bool nested : {false, true}) {
		for (uint64 i = 0; i < 99999; i++) {
			add("f", i, nested ? 300000 - i : i + 1);
		}
		add("q", 100000, 100001, ZQ_TRACER_EXTERNAL, service("h", ""));
		add("beyond", 200002, 200003);
		std::string text = json();
		EXPECT_EQ(std::count(text.begin(), text.end(), '{'), 100001);
	}
	EXPECT_LT((clock() - begin) / CLOCKS_PER_SEC, 8); /* walking along the siblings would take a minute */
}

TEST_F(Trace, TakesAQuarterOfTheMemoryLimitAtMost)
{
	run("ini_set('memory_limit', 32 << 20);");
	for (uint64 i = 0; i < 40000; i++) {
		add("f", i, i + 1);
	}
	EXPECT_EQ(zend_llist_count(ZQG(tracer)), 32768u);
}
