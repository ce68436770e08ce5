/* Which calls are recognised, before and after they run, and the small callbacks: in scripts that really run. */
#include <array>
#include <string>
#include <vector>

#include "engine_fixture.h"

#include "zqp_exception.h"
#include "zqp_name_table.h"
#include "zqp_tracer.h"
#include "zqp_wrapper.h"

namespace {

std::vector<std::string> calls;

int note_before(zend_execute_data *, char *func TSRMLS_DC)
{
	calls.push_back("before " + std::string(func));
	return 0;
}

int note_after(zq_stack_data *stack_data, uint64, uint64 TSRMLS_DC)
{
	calls.push_back("after " + std::string(stack_data->func));
	return 1;
}

int note_otherwise(zend_execute_data *, char *func TSRMLS_DC)
{
	calls.push_back("otherwise " + std::string(func));
	return 0;
}

typedef std::vector<std::string> Texts;

/* A request whose hooks are on. */
class Wrapper : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		zend_zqprof_globals *g = zq_globals(TSRMLS_C);
		calls.clear();
		zq_create_containers(TSRMLS_C);
		g->error_collector_enabled = g->rum_enabled = g->ws_enabled = g->action_tracer_enabled = 0;
		g->transaction_tracer_enabled = 1;
		g->webservice_should_ignored = 0;
		g->vantor_id_secret = estrdup("1|2");
		g->transaction_id = estrdup("abc");
		g->rinit_tick = cycle_timer();
		g->profile_end_time = 0;
		g->agent_enabled = g->hook_enabled = 1;
	}

	void TearDown() override
	{
		ZQG(hook_enabled) = ZQG(agent_enabled) = ZQG(rum_enabled) = 0;
		EngineTest::TearDown();
	}

	template <size_t N> void watch_before(const char (&name)[N], zq_wrapper_callback callback = note_before)
	{
		zq_watch_before(name, N, callback TSRMLS_CC);
	}
	template <size_t N> void watch_after(const char (&name)[N]) { zq_watch_after(name, N, note_after TSRMLS_CC); }
};

TEST_F(Wrapper, RunsTheCallbacksOfExactlyTheWatchedNames)
{
	watch_before("shop");
	watch_after("shop");
	watch_before("Cart::total");
	watch_after("Ns\\Cart::total");
	watch_before("b");
	struct {
		const char *script;
		Texts expected;
	} cases[] = {
		{"function shop() {} shop();", {"before shop", "after shop"}},
		{"SHOP();", {"before shop", "after shop"}}, /* the declared name counts */
		{"function shop2() {} function sho() {} shop2(); sho();", {}},
		{"class Cart { function total() {} } class Cheap extends Cart {} $c = new Cheap; $c->total();", {"before Cart::total"}},
		{"class cart2 { static function total() {} } cart2::total(); call_user_func('Cart::total');", {"before Cart::total"}},
		{"namespace Ns; class Cart { function total() {} } (new Cart)->total();", {"after total"}},
		{"namespace Other; class Cart { function total() {} } (new Cart)->total();", {}},
		{"function b() { shop(); } b();", {"before b", "before shop", "after shop"}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.script);
		calls.clear();
		run(c.script);
		EXPECT_EQ(c.expected, calls);
	}
}

TEST_F(Wrapper, KeepsTheLaterOfTwoRegistrationsAndNoneWithoutTables)
{
	watch_before("shop");
	watch_before("shop", note_otherwise);
	int rows = zend_hash_num_elements(ZQG(wrapper_function_hash));
	watch_before("shop", note_otherwise);
	EXPECT_EQ(rows, zend_hash_num_elements(ZQG(wrapper_function_hash)));
	run("function shop() {} shop();");
	EXPECT_EQ(Texts{"otherwise shop"}, calls);

	HashTable *before = ZQG(wrapper_function_hash), *after = ZQG(performance_function_hash);
	ZQG(wrapper_function_hash) = ZQG(performance_function_hash) = NULL;
	watch_before("x");
	watch_after("x");
	EXPECT_EQ(nullptr, zq_find_before("x", 2 TSRMLS_CC));
	EXPECT_EQ(nullptr, zq_find_after("x", 2 TSRMLS_CC));
	ZQG(wrapper_function_hash) = before;
	ZQG(performance_function_hash) = after;
}

TEST_F(Wrapper, StartsARequestWithItsTriggersOnly)
{
	EXPECT_NE(nullptr, zq_find_before("WebsocketClient::connect", sizeof "WebsocketClient::connect" TSRMLS_CC));
	EXPECT_EQ(nullptr, zq_find_before("websocketclient::connect", sizeof "WebsocketClient::connect" TSRMLS_CC));
	EXPECT_EQ(0u, zend_hash_num_elements(ZQG(performance_function_hash)));
}

TEST_F(Wrapper, FilterPassesEveryWatchedNameAndFewOthers)
{
	struct {
		const char *cls, *func;
	} names[] = {{NULL, "f"}, {NULL, "wp_head"}, {"A", "b"}, {"Cart", "total"}, {"yii\\base\\Module", "runAction"}, {NULL, ""}, {"A", ""}};
	auto passes = [&](const std::string *cls, const std::string &func) {
		return zq_may_be_watched(cls ? cls->c_str() : NULL, cls ? (int)cls->size() : 0, func.c_str() TSRMLS_CC);
	};
	for (const auto &name : names) {
		std::string cls = name.cls ? name.cls : "", func = name.func, full = name.cls ? cls + "::" + func : func;
		memset(ZQG(watch_filter), 0, sizeof ZQG(watch_filter));
		int before = passes(name.cls ? &cls : NULL, func);
		zq_watch_after(full.c_str(), full.size() + 1, note_after TSRMLS_CC);
		EXPECT_EQ(0, before) << full;
		EXPECT_EQ(1, passes(name.cls ? &cls : NULL, func)) << full;
	}
	zq_init_funtion_hash(TSRMLS_C);
	int passed = 0, asked = 0;
	for (char first = 'a'; first <= 'z'; first++) {
		for (size_t length = 1; length < 40; length++, asked++) {
			std::string func = first + std::string(length, (char)('a' + (first + length) % 26));
			passed += passes(NULL, func);
		}
	}
	EXPECT_LT(passed * 20, asked) << "one in twenty";
}

struct numbered_row {
	zq_name name;
	int number;
};
constexpr auto numbered_rows = std::to_array<numbered_row>({
	{"a", 0}, {"b", 1}, {"ab", 2}, {"curl_exec", 3}, {"curl_init", 4}, {"curl_setopt", 5}, {"fopen", 6}, {"fread", 7},
	{"PDO", 8}, {"PDOStatement", 9}, {"MongoDB\\Driver\\Manager", 10}, {"", 11}, {"\xFF\xFE", 12},
});
constexpr auto numbered_index = zq_index_names(numbered_rows);

int number_of(const std::string &name)
{
	const numbered_row *row =
		zq_find_row(numbered_rows, numbered_index, zq_name_hash(name.data(), name.size()), name.data(), (int)name.size());
	return row ? row->number : -1;
}

TEST(NameTable, FindsEveryRowAndNothingElse)
{
	for (const numbered_row &row : numbered_rows) {
		std::string name(row.name.text, (size_t)row.name.length);
		EXPECT_EQ(row.number, number_of(name)) << name;
		EXPECT_EQ(-1, number_of(name + "x")) << name;
	}
	for (const char *other : {"pdo", "A", "curl_exe", "fclose", "c"}) {
		EXPECT_EQ(-1, number_of(other)) << other;
	}
	/* a colliding hash alone is no match */
	EXPECT_EQ(nullptr, zq_find_row(numbered_rows, numbered_index, zq_name_hash("fopen"), "fopex", 5));
	EXPECT_EQ(nullptr, zq_find_row(numbered_rows, numbered_index, zq_name_hash("fopen"), "fopen2", 6));
}

TEST_F(Wrapper, ReadsStatusLinesAndHeadersThatTheScriptSends)
{
	struct {
		const char *line;
		const char *error_message; /* null: none */
		int keeps_rum;
	} cases[] = {
		{"'HTTP/1.1 404 Not Found'", "HTTP/1.1 404 Not Found", 0},
		{"'http/1.0 500'", "http/1.0 500", 0},
		{"'HTTP/1.1 200 OK'", NULL, 1},
		{"'HTTP/1.1 304 Not Modified'", NULL, 0},
		{"'HTTP/2.0 404 Not Found'", NULL, 1},
		{"'Content-Type: application/json'", NULL, 0},
		{"'content-type: Text/HTML; charset=utf-8'", NULL, 1},
		{"'Content-Length: 10'", NULL, 0},
		{"'Location: /x'", NULL, 1},
		{"''", NULL, 1},
		{"17", NULL, 1},
	};
	for (const auto &c : cases) {
		for (int collects : {0, 1}) {
			SCOPED_TRACE(testing::Message() << c.line << " " << collects);
			ZQG(error_collector_enabled) = collects;
			ZQG(rum_enabled) = 1;
			run(std::string("header(") + c.line + ");");
			EXPECT_EQ(c.keeps_rum, ZQG(rum_enabled));
			ASSERT_EQ(collects && c.error_message, ZQG(error) != NULL);
			if (ZQG(error)) {
				EXPECT_STREQ(c.error_message, ZQG(error)->msg);
				error_element_dtor(ZQG(error));
				ZQG(error) = NULL;
			}
		}
	}
}

TEST_F(Wrapper, WatchesTheScriptsOwnErrorHandler)
{
	struct {
		const char *handler;
		const char *watched; /* null: nothing */
	} cases[] = {
		{"'on_error'", "on_error"},
		{"array('Log', 'write')", "Log::write"},
		{"array(new Log, 'write')", "Log::write"},
		{"function () {}", NULL},
	};
	run("class Log { static function write() {} } function on_error() {}");
	for (const auto &c : cases) {
		for (int collects : {0, 1}) {
			SCOPED_TRACE(testing::Message() << c.handler << " " << collects);
			zend_hash_clean(ZQG(wrapper_function_hash));
			ZQG(error_collector_enabled) = collects;
			EXPECT_EQ("", run(std::string("set_error_handler(") + c.handler + ");"));
			EXPECT_EQ(collects && c.watched ? 1u : 0u, zend_hash_num_elements(ZQG(wrapper_function_hash)));
			if (collects && c.watched) {
				EXPECT_EQ(wrapper_user_error_handler, zq_find_before(c.watched, strlen(c.watched) + 1 TSRMLS_CC));
			}
		}
	}
}

class Websocket : public Wrapper {
protected:
	void SetUp() override
	{
		Wrapper::SetUp();
		run("class WebsocketClient { function connect($host, $port, $path, $data, $length = null) {"
		    "  $this->stream = fopen('php://memory', 'w+'); $sent = $data;"
		    "  if ($length === null) fwrite($this->stream, $data); else fwrite($this->stream, $data, $length);"
		    "  rewind($this->stream); echo stream_get_contents($this->stream), $data === $sent ? '' : ' changed'; }"
		    " function read($text) { $s = fopen('php://memory', 'w+'); fputs($s, $text); rewind($s); fread($s, 8192); } }"
		    "function handshake($data, $length = null) {"
		    "  $GLOBALS['c'] = new WebsocketClient; $GLOBALS['c']->connect('h', 80, '/p', $data, $length); }");
	}
};

TEST_F(Websocket, HandshakeCarriesTheIdentityAndTheScriptSeesItsOwn)
{
	const std::string key = "GET / HTTP/1.1\\r\\nSec-WebSocket-Key: k\\r\\n\\r\\n";
	const std::string sent = "GET / HTTP/1.1\r\nX-Vantor-Id: 1|2;c=1;x=abc\r\nSec-WebSocket-Key: k\r\n\r\n";
	const std::string unchanged = "GET / HTTP/1.1\r\nSec-WebSocket-Key: k\r\n\r\n";
	struct {
		std::string arguments;
		int enabled;
		std::string expected;
	} cases[] = {
		{"\"" + key + "\"", 1, sent},
		{"\"" + key + "\", 1000", 1, sent},
		{"\"" + key + "\", 40", 1, sent},
		{"\"" + key + "\", 39", 1, unchanged.substr(0, 39)}, /* a part is not lengthened */
		{"\"" + key + "\", '40'", 1, unchanged},
		{"\"" + key + "\"", 0, unchanged},
		{"'no key'", 1, "no key"},
		{"17", 1, "17"},
	};
	ASSERT_EQ(40u, unchanged.size());
	for (const auto &c : cases) {
		SCOPED_TRACE(c.arguments);
		ZQG(transaction_tracer_enabled) = c.enabled;
		EXPECT_EQ(c.expected, run("handshake(" + c.arguments + ");"));
		EXPECT_EQ(0, ZQG(ws_enabled)) << "only while it connects";
	}
	run("$f = fopen('php://memory', 'w+'); fwrite($f, \"" + key + "\"); rewind($f);");
	EXPECT_EQ(unchanged, run("echo stream_get_contents($f);")) << "not outside of the connect call";
}

TEST_F(Websocket, KeepsWhatTheAnswerSaysOnTheClient)
{
	struct {
		const char *answer, *data;
	} cases[] = {
		{"HTTP/1.1 101\\r\\nX-Vantor-Tx-Data: {\\\"id\\\":1}\\r\\n\\r\\n", "{\"id\":1}"},
		{"X-Vantor-Tx-Data: {}", "{}"},
		{"X-Vantor-Tx-Data: \\r\\n", ""},
		{"HTTP/1.1 101\\r\\n\\r\\n", "(null)"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.answer);
		run("handshake('x');");
		ZQG(ws_enabled) = 1;
		run(std::string("$GLOBALS['c']->read(\"") + c.answer + "\");");
		EXPECT_EQ(c.data, run("echo isset($c->___zq_data) ? $c->___zq_data : '(null)';"));
		EXPECT_EQ("ws://h:80/p", run("echo $c->___zq_url;"));
	}
	run("handshake('x'); class Other extends WebsocketClient { function read($t) { $s = fopen('php://memory', 'w+');"
	    "fputs($s, $t); rewind($s); fread($s, 8192); } } $c = new Other;");
	ZQG(ws_enabled) = 1;
	EXPECT_EQ("", run("$c->read('X-Vantor-Tx-Data: {}'); echo isset($c->___zq_data) ? 'kept' : '';"));
}

TEST_F(Wrapper, TracesInternalCallsAboveTheThresholdThatBeganInThisAction)
{
	struct {
		int enabled;
		uint64 threshold_us;
		int64_t action_began_us; /* relative to now */
		size_t traced;
	} cases[] = {
		{1, 3000, 0, 1},
		{0, 3000, 0, 0},
		{1, 60000000, 0, 0},
		{1, 3000, 60000000, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.enabled << " " << c.threshold_us << " " << c.action_began_us);
		zend_llist_clean(ZQG(tracer));
		ZQG(action_tracer_enabled) = c.enabled;
		ZQG(tracer_threshold_tick) = c.threshold_us;
		ZQG(rinit_tick) = cycle_timer() + (uint64)c.action_began_us;
		run("usleep(5000); strlen('x');");
		EXPECT_EQ(c.traced, zend_llist_count(ZQG(tracer)));
	}
}

TEST_F(Wrapper, NeedsNoHashOfMostFunctions)
{
	for (const char *name : {"strlen", "count", "array_merge", "in_array", "preg_match", ""}) {
		EXPECT_EQ(0, zq_internal_may_be_watched(NULL, 0, name)) << name;
	}
}

} // namespace
