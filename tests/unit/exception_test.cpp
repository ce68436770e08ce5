#include "engine_fixture.h"

#include "zqp_exception.h"

class Errors : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		zq_create_containers(TSRMLS_C);
		ZQG(agent_enabled) = ZQG(hook_enabled) = ZQG(error_collector_enabled) = 1;
	}
	void TearDown() override
	{
		forget();
		ZQG(hook_enabled) = ZQG(agent_enabled) = 0;
		ZQG(error_collector_ignored_status_codes) = nullptr;
		EngineTest::TearDown();
	}
	void forget()
	{
		error_element_dtor(ZQG(error));
		ZQG(error) = nullptr;
	}
	/* "class: message", or "none"; forgotten afterwards. */
	std::string recorded()
	{
		std::string text = "none";
		if (ZQG(error)) {
			text = std::string(ZQG(error)->cls) + ": " + ZQG(error)->msg;
		}
		forget();
		return text;
	}
};

static size_t occurrences(const std::string &text, const std::string &part)
{
	size_t count = 0;
	for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
		count++;
	}
	return count;
}

TEST_F(Errors, RecordsSeriousEngineErrorsAndLeavesTheEnginesOwnReport)
{
	const struct { const char *code, *recorded, *printed; } cases[] = {
		{"trigger_error('w', E_USER_WARNING);", "none", "Warning: w"},
		{"echo $undefined;", "none", "Notice: Undefined variable"},
		{"trigger_error('100% broken %s', E_USER_ERROR);", "USER_ERROR: 100% broken %s", "Fatal error: 100% broken %s"},
		{"eval('if (');", "PARSE_ERROR: syntax error, unexpected end of file", "Parse error: syntax error"},
		{"absent();", "RUNTIME_ERROR: Call to undefined function absent()", "Fatal error: Call to undefined"},
		{"class C implements Absent {}", "RUNTIME_ERROR: Interface 'Absent' not found", "Fatal error: Interface"},
		{"eval('function f() {} function f() {}');", "COMPILE_ERROR: Cannot redeclare f()", "Fatal error: Cannot"},
		{"$f = function (array $a) {}; $f(1);", "RECOVERABLE_ERROR: Argument 1 passed to {closure}() must be", "fatal error: Arg"},
		{"throw new LogicException('it');", "LogicException: Uncaught exception 'LogicException' with message 'it'", "Uncaught"},
		{"trigger_error(\"Uncaught exception 'Fake' with message\", E_USER_ERROR);", "USER_ERROR: Uncaught exception 'Fake'", "Fake"},
	};
	for (const auto &c : cases) {
		std::string printed = run(c.code), error = recorded();
		EXPECT_EQ(error.substr(0, strlen(c.recorded)), c.recorded) << c.code;
		EXPECT_EQ(occurrences(printed, c.printed), 1u) << c.code << ": " << printed;
	}
}

TEST_F(Errors, KeepsTheFirstErrorWithItsStack)
{
	run("function fails() {\n eval('if (');\n}\nfails(); trigger_error('second', E_USER_ERROR);");
	ASSERT_NE(ZQG(error), nullptr);
	EXPECT_NE(std::string(ZQG(error)->stack).find("fails("), std::string::npos) << ZQG(error)->stack;
	EXPECT_EQ(recorded().substr(0, 11), "PARSE_ERROR");
}

TEST_F(Errors, AreNotRecordedWhileSwitchedOff)
{
	int *switches[] = {&ZQG(hook_enabled), &ZQG(agent_enabled), &ZQG(error_collector_enabled)};
	for (int *off : switches) {
		*off = 0;
		EXPECT_EQ(occurrences(run("eval('if (');"), "Parse error"), 1u);
		*off = 1;
		EXPECT_EQ(recorded(), "none");
	}
}

TEST_F(Errors, SurvivesTheMemoryLimit)
{
	if (!is_zend_mm(TSRMLS_C)) {
		GTEST_SKIP() << "USE_ZEND_ALLOC=0: there is no limit to reach";
	}
	/* a stack of more text than the reserve that the engine keeps for this error */
	std::string name(2000, 'f');
	std::string printed = run("function " + name + "($depth) { $depth ? " + name + "($depth - 1) : fill(); }"
	                          "function fill() { $all = array(); for ($i = 0; ; $i++) { $all[] = 'x' . $i; } }"
	                          "ini_set('memory_limit', memory_get_usage(true) + 1048576); " + name + "(30);");
	EXPECT_EQ(occurrences(printed, "Allowed memory size of"), 1u) << printed;
	EXPECT_TRUE(bailed_out);
	ASSERT_NE(ZQG(error), nullptr);
	EXPECT_EQ(occurrences(ZQG(error)->stack, name + "("), 18u) << ZQG(error)->stack;
	EXPECT_EQ(recorded().substr(0, 37), "RUNTIME_ERROR: Allowed memory size of");
}

TEST_F(Errors, OfTheAgentsOwnCallsAreDroppedUnlessFatal)
{
	const struct { const char *code; bool printed; } cases[] = {
		{"trigger_error('quiet', E_USER_WARNING);", false},
		{"trigger_error('quiet', E_USER_ERROR); echo 'went on';", false},
		{"$f = function (array $a) {}; $f(1); echo 'went on';", false},
		{"absent();", true},
	};
	for (const auto &c : cases) {
		ZQG(hook_enabled) = 0;
		ZQG(in_agent_call) = 1;
		std::string printed = run(c.code);
		ZQG(in_agent_call) = 0;
		ZQG(hook_enabled) = 1;
		EXPECT_EQ(occurrences(printed, "rror"), c.printed ? 1u : 0u) << printed;
		EXPECT_EQ(bailed_out, c.printed) << c.code;
		EXPECT_EQ(recorded(), "none");
	}
	EXPECT_EQ(Z_TYPE_P(value("strpos(error_get_last()['message'], 'quiet')")), IS_BOOL); /* only absent() was seen */
}

TEST_F(Errors, SeenByTheScriptsOwnHandler)
{
	const struct { const char *arguments, *recorded; } cases[] = {
		{"E_USER_ERROR, 'boom', 'file', 1", "USER_ERROR: boom"},
		{"E_RECOVERABLE_ERROR, 'odd'", "RECOVERABLE_ERROR: odd"},
		{"E_WARNING, 'boom'", "none"},
		{"E_USER_ERROR", "none"},
		{"'256', 'boom'", "none"},
		{"E_USER_ERROR, array()", "none"},
		{"", "none"},
	};
	char name[] = "handler";
	for (const auto &c : cases) {
		int result = -1;
		probe(c.arguments, [&](zend_execute_data *frame) {
			result = wrapper_user_error_handler(frame, name TSRMLS_CC);
		});
		EXPECT_EQ(result, 0);
		EXPECT_EQ(recorded(), c.recorded) << c.arguments;
	}
}

TEST_F(Errors, FromTheHttpStatus)
{
	const struct { int status; const char *msg, *ignored, *recorded; } cases[] = {
		{399, nullptr, nullptr, "none"},
		{400, nullptr, nullptr, "HTTP_ERROR: 400"},
		{401, "HTTP/1.1 401 Unauthorized", nullptr, "none"},
		{402, nullptr, "", "HTTP_ERROR: 402"},
		{404, "HTTP/1.1 404 Gone fishing", nullptr, "HTTP_ERROR: HTTP/1.1 404 Gone fishing"},
		{404, nullptr, "404,500", "none"},
		{500, nullptr, "404,500", "none"},
		{503, nullptr, "404,500", "HTTP_ERROR: 503"},
		{404, nullptr, "4040", "none"}, /* part of a longer text counts */
		{99999, nullptr, nullptr, "HTTP_ERROR: 999"},
		{-5, nullptr, nullptr, "none"},
	};
	for (const auto &c : cases) {
		ZQG(error_collector_ignored_status_codes) = const_cast<char *>(c.ignored);
		zq_http_error(c.status, c.msg TSRMLS_CC);
		EXPECT_EQ(recorded(), c.recorded) << c.status;
	}
	zq_http_error(404, nullptr TSRMLS_CC);
	zq_http_error(500, nullptr TSRMLS_CC);
	EXPECT_EQ(recorded(), "HTTP_ERROR: 404");
}

TEST_F(Errors, FromAQueryHideItsValuesAndReplaceEarlierOnes)
{
	zq_http_error(500, nullptr TSRMLS_CC);
	zq_db_error("Duplicate entry '7'", "INSERT INTO t VALUES ('x', 42)" TSRMLS_CC);
	EXPECT_EQ(recorded(), "DB_ERROR: Duplicate entry '7'. sql=[INSERT INTO t VALUES ('?', ?\?)]");
	zq_db_error("gone away", nullptr TSRMLS_CC);
	zq_db_error(nullptr, std::string(100000, '1').c_str() TSRMLS_CC);
	EXPECT_EQ(recorded(), "DB_ERROR: . sql=[" + std::string(100000, '?') + "]");
}

TEST_F(Errors, TypesOutsideTheTableHaveTheirOwnName)
{
	for (int type : {0, E_WARNING, E_DEPRECATED, E_ALL, -1}) {
		EXPECT_STREQ(zq_get_err_type_name(type), "UNKOWN_ERROR");
		EXPECT_FALSE(zq_error_need_report(type));
	}
}
