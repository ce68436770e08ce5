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
