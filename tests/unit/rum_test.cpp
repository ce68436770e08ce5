#include "engine_fixture.h"

#include <regex>

#include "zqp_rum.h"

static std::string page;

static int collect(const char *text, unsigned int len TSRMLS_DC)
{
	page.append(text, len);
	return (int)len - 1; /* unlike `len`, so that a passed-on result shows */
}

class BrowserScript : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		saved_writer = std::exchange(_sapi_ub_write, collect);
		begin_page("{}");
	}
	void TearDown() override
	{
		_sapi_ub_write = saved_writer;
		ZQG(agent_enabled) = ZQG(rum_enabled) = 0;
		ZQG(rum_script) = ZQG(action_name) = ZQG(tracer_id) = ZQG(vantor_id_secret) = nullptr;
		SG(headers_sent) = 0;
		EngineTest::TearDown();
	}
	void begin_page(const char *script)
	{
		page.clear();
		ZQG(agent_enabled) = ZQG(rum_enabled) = 1;
		ZQG(rum_script) = const_cast<char *>(script);
		ZQG(rum_flag) = 0;
		ZQG(rum_write_length) = 0;
	}
	int write(const std::string &text) { return zq_ub_write(text.data(), (unsigned)text.size() TSRMLS_CC); }
	/* The text with each inserted element as "@". */
	static std::string marked(const std::string &text)
	{
		std::string marked = text;
		for (size_t at; (at = marked.find("<script>")) != std::string::npos;) {
			marked.replace(at, marked.find("</script>", at) + strlen("</script>") - at, "@");
		}
		return marked;
	}
	std::string written(const std::vector<std::string> &chunks)
	{
		begin_page("{}");
		for (const auto &chunk : chunks) {
			write(chunk);
		}
		return marked(page);
	}
	int (*saved_writer)(const char *, unsigned int TSRMLS_DC) = nullptr;
};

TEST_F(BrowserScript, AssignsThePageDataBeforeTheScriptsLastBrace)
{
	char action[] = "WebAction/URI/'+alert(1)</script>\\\n\xc3\xa9", id[] = "9f", secret[] = "acct|12#34";
	ZQG(action_name) = action;
	ZQG(tracer_id) = id;
	ZQG(vantor_id_secret) = secret;
	ZQG(block_duration) = -3;
	ZQG(rinit_tick) = cycle_timer() - 12999;
	smart_str out = {};
	EXPECT_EQ(buildScript("A{B}C", &out TSRMLS_CC), 1);
	std::string text = taken(out);
	text = std::regex_replace(text, std::regex("a:1[2-9]}"), "a:12}"); /* time goes on */
	EXPECT_EQ(text, "<script>A{Bqv_rum.agent={id:'12#34',n:'WebAction/URI/\\u0027+alert(1)\\u003c/script\\u003e\\u005c"
	                "\\u000a\xc3\xa9',tid:'9f',q:-3,a:12};}C</script>");
}

TEST_F(BrowserScript, MakesTheTraceIdThatTheReportUsesToo)
{
	smart_str out = {};
	EXPECT_EQ(buildScript("}", &out TSRMLS_CC), 1);
	ASSERT_NE(ZQG(tracer_id), nullptr);
	EXPECT_NE(taken(out).find(std::string(",tid:'") + ZQG(tracer_id) + "'"), std::string::npos);
	efree(ZQG(tracer_id));
}

TEST_F(BrowserScript, GoesToTheEndOfTheTitleOrHeadOfAnHtmlPage)
{
	const std::string filler(65530, 'x');
	const struct { std::vector<std::string> chunks; std::string page; } cases[] = {
		{{"<HTML lang=en><head><title>x</title></head>"}, "<HTML lang=en><head><title>x</title>@</head>"},
		{{"<html>", "<head></HEAD>"}, "<html><head>@</HEAD>"},
		{{"<html\n>", "</title>"}, "<html\n></title>@"},
		{{"</head>"}, "</head>"},
		{{"</head><html>", "</title>"}, "@</head><html></title>"},
		{{"<html><head></head>", "</head></title>"}, "<html><head>@</head></head></title>"},
		{{"<htmlx><head></head>"}, "<htmlx><head></head>"},
		{{"<html lang=en", "><head></head>"}, "<html lang=en><head></head>"}, /* cut off */
		{{"<html", "><head></head>"}, "<html><head></head>"},
		{{"<<html></he", "ad></title>"}, "<<html></head></title>@"},
		{{"<html>", "<", "</head", "</", ">", ""}, "<html><</head</>"},
		{{"<html>" + filler.substr(10), "</head>"}, "<html>" + filler.substr(10) + "@</head>"},
		{{"<html>" + filler, "</head>"}, "<html>" + filler + "</head>"},          /* 65,536 bytes examined */
		{{"<html>" + filler.substr(7) + "</head>"}, "<html>" + filler.substr(7) + "@</head>"},
		{{"<html>" + filler.substr(6) + "</head>"}, "<html>" + filler.substr(6) + "</head>"}, /* tag crosses the limit */
		{{std::string("<html>\0</head>", 14)}, std::string("<html>\0@</head>", 15)},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(written(c.chunks), c.page) << c.chunks[0].substr(0, 60);
	}
}

TEST_F(BrowserScript, CountsTheWholeChunkAsWrittenOnlyWhenItInserted)
{
	EXPECT_EQ(write("<html>"), 5);
	EXPECT_EQ(write("</head>"), 7);
	EXPECT_EQ(ZQG(rum_enabled), 0);
	EXPECT_EQ(write("</head>"), 6);
}

TEST_F(BrowserScript, LeavesThePageAloneWithoutAUsableScript)
{
	for (const char *script : {(const char *)nullptr, "", "no brace"}) {
		begin_page(script);
		EXPECT_EQ(write("<html></head>"), 12);
		EXPECT_EQ(page, "<html></head>");
		EXPECT_EQ(ZQG(rum_enabled), 1);
	}
	ZQG(rum_script) = const_cast<char *>("{}");
	write("</title>");
	EXPECT_EQ(marked(page), "<html></head></title>@"); /* the search went on */
}

TEST_F(BrowserScript, NeverTouchesResponseHeaders)
{
	char line[] = "X-Note: <html></head>";
	const int line_len = sizeof(line) - 1;
	sapi_add_header_ex(line, line_len, 1, 0 TSRMLS_CC);
	const char *header = ((sapi_header_struct *)SG(sapi_headers).headers.tail->data)->header;
	SG(headers_sent) = 1;
	EXPECT_EQ(zq_ub_write(header, line_len TSRMLS_CC), line_len - 1);
	EXPECT_EQ(page, line);
	char status[] = "HTTP/1.1 200 <html></head>";
	SG(sapi_headers).http_status_line = status;
	write(std::string(status) + "\r\n");
	SG(sapi_headers).http_status_line = nullptr;
	EXPECT_EQ(ZQG(rum_flag), 0);
	EXPECT_EQ(ZQG(rum_write_length), 0u);
	page.clear();
	write("<html></head>");
	EXPECT_EQ(marked(page), "<html>@</head>");
}

TEST_F(BrowserScript, GoesIntoTheActiveOutputBuffer)
{
	std::string script = std::string(50000, 's') + "{}";
	ZQG(rum_script) = script.data();
	const auto inject = [this](zend_execute_data *) { injectOutputBuffer(TSRMLS_C); };
	at_probe(inject);
	std::string page_before = "<html><head><title>t</title>" + std::string(20000, 'b') + "</head>";
	run("ob_start(); echo '" + page_before + "'; probe(); probe(); $page = ob_get_contents(); echo '!'; $all = ob_get_clean();");
	zval *all = value("$all");
	std::string text(Z_STRVAL_P(all), Z_STRLEN_P(all));
	EXPECT_EQ(marked(text), "<html><head><title>t</title>@" + page_before.substr(28) + "!");
	EXPECT_NE(text.find(std::string(50000, 's')), std::string::npos);
	EXPECT_EQ(ZQG(rum_enabled), 0);
	EXPECT_EQ(ZQG(rum_write_length), page_before.size());
}

TEST_F(BrowserScript, LeavesBuffersAloneThatAreMissingOrBeingHandled)
{
	const auto inject = [this](zend_execute_data *) { injectOutputBuffer(TSRMLS_C); };
	at_probe(inject);
	run("probe();");
	run("ob_start(); probe(); ob_end_clean();");
	run("ob_start(function ($text) { probe(); return $text; }); echo '<html></head>'; ob_end_flush();");
	EXPECT_EQ(ZQG(rum_write_length), 0u);
	EXPECT_EQ(marked(page), "<html>@</head>"); /* by the writer, when it was flushed */
}
