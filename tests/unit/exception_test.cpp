#include "engine_fixture.h"

#include "zqp_exception.h"

class Errors : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(agent_enabled) = ZQG(hook_enabled) = ZQG(error_collector_enabled) = 1;
	}
	/* "class: message", or "none"; forgotten afterwards. */
	std::string recorded()
	{
		std::string text = ZQG(error) ? std::string(ZQG(error)->cls) + ": " + ZQG(error)->msg : "none";
		error_element_dtor(ZQG(error));
		ZQG(error) = nullptr;
		return text;
	}
};

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
	size_t message = printed.find("Allowed memory size of");
	EXPECT_TRUE(bailed_out && message != std::string::npos && printed.find("Allowed", message + 1) == std::string::npos) << printed;
	ASSERT_NE(ZQG(error), nullptr);
	EXPECT_EQ(strlen(ZQG(error)->stack) / name.size(), 18u); /* and two other frames */
	EXPECT_EQ(recorded().substr(0, 37), "RUNTIME_ERROR: Allowed memory size of");
}

TEST_F(Errors, OfTheAgentsOwnCallsAreDroppedUnlessFatal)
{
	ZQG(hook_enabled) = 0;
	const std::pair<const char *, const char *> cases[] = {
		{"trigger_error('quiet', E_USER_WARNING);", ""},
		{"trigger_error('quiet', E_USER_ERROR); echo 'went on';", "went on"},
		{"$f = function (array $a) {}; $f(1); echo 'went on';", "went on"},
		{"absent();", "\nFatal error: Call to undefined function absent() in test on line 1\n"},
	};
	for (const auto &[code, printed] : cases) {
		ZQG(in_agent_call) = 1;
		EXPECT_EQ(run(code), printed);
		ZQG(in_agent_call) = 0;
	}
	EXPECT_EQ(run("$e = error_get_last(); echo $e['message'];"), "Call to undefined function absent()");
}

TEST_F(Errors, FromTheHttpStatus)
{
	const struct { int status; const char *msg, *ignored, *recorded; } cases[] = {
		{399, nullptr, nullptr, "none"}, {400, nullptr, nullptr, "HTTP_ERROR: 400"}, {401, "HTTP/1.1 401 Unauthorized", nullptr, "none"},
		{402, nullptr, "", "HTTP_ERROR: 402"}, {404, "HTTP/1.1 404 Gone", nullptr, "HTTP_ERROR: HTTP/1.1 404 Gone"},
		{500, nullptr, "404,500", "none"}, {503, nullptr, "404,500", "HTTP_ERROR: 503"},
		{404, nullptr, "4040", "none"}, /* part of a longer text counts */
		{99999, nullptr, nullptr, "HTTP_ERROR: 999"}, {-5, nullptr, nullptr, "none"},
	};
	for (const auto &c : cases) {
		ZQG(error_collector_ignored_status_codes) = const_cast<char *>(c.ignored);
		zq_http_error(c.status, c.msg TSRMLS_CC);
		EXPECT_EQ(recorded(), c.recorded) << c.status;
	}
	ZQG(error_collector_ignored_status_codes) = nullptr;
}
