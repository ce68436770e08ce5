#include <chrono>
#include <regex.h>

#include "engine_fixture.h"

class HelperString : public EngineTest {};

TEST_F(HelperString, ObfuscatesEveryDigitAndQuotedText)
{
	const struct { const char *sql, *shown; } cases[] = {
		{"select * from t1 where a='xy' and b=12", "select * from t? where a='?\?' and b=?\?"},
		{"a=\"it's\" and c", "a=\"?\?'?\"?????\?"},
		{"'a''b' x", "'?''?' x"},
		{"'a\\' 7", "'?\?' ?"},
		{"a\tb\nc\rd '\t'", "a b c d ' '"},
		{"'\xc3\xa9'", "'?\?'"},
		{"", ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.sql);
		std::string sql = c.sql;
		zq_obfuscate_sql(sql.data());
		EXPECT_EQ(sql, c.shown);
	}
	zq_obfuscate_sql(nullptr);
}

TEST_F(HelperString, CleansNamesInPlace)
{
	std::string text = "a\x01\x1f\n \x7f\xc3\xa9";
	zq_str_replace_ln(text.data());
	EXPECT_EQ(text, "a    \x7f\xc3\xa9");
	text = "/a\\b.c";
	zq_str_replace_to_dot(text.data());
	EXPECT_EQ(text, ".a.b.c");
}

TEST_F(HelperString, FindsTheScriptSuffixWithinItsLength)
{
	const struct { const char *text; int length; int behind; } cases[] = {
		{"/a.php/b", 8, 6}, {"/a.PhP", 6, 6}, {"/a.php", 5, -1}, {"a.phpx.php", 10, 5},
		{".php", 4, -1},    {".phpx", 5, 4},  {"/index", 6, -1}, {"/a.ph", 5, -1},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		const char *at = zq_php_pos(c.text, c.length);
		EXPECT_EQ(at ? at - c.text : -1, c.behind);
	}
	EXPECT_EQ(zq_php_pos(nullptr, 9), nullptr);
}

TEST_F(HelperString, KeepsTheLastTwoPartsOfAPath)
{
	const struct { const char *path, *base; } cases[] = {
		{"/a/b/c.php", "b/c.php"}, {"/a/c.php", "a/c.php"}, {"/c.php", "/c.php"}, {"c.php", "c.php"}, {"a//", "/"}, {nullptr, ""},
	};
	for (const auto &c : cases) {
		EXPECT_STREQ(zq_get_base_filename(c.path), c.base);
	}
}

TEST_F(HelperString, ReadsResponseHeaderLines)
{
	const struct { const char *line; int content, status; } cases[] = {
		{"Content-Type: text/html; charset=utf-8", 1, 0},
		{"CONTENT-TYPE: TEXT/HTML", 1, 0},
		{"Content-type: application/json", 0, 0},
		{"text/html content-type: image/png", 0, 0},
		{"Content-Length: 10", 0, 0},
		{"X-A: b", -1, 0},
		{"HTTP/1.1 404 Not Found", -1, 404},
		{"Status: http/1.0\t503", -1, 503},
		{"HTTP/1.1", -1, 0},
		{"HTTP/2 500", -1, 0},
		{"HTTP/1.1 99999999999999999999", -1, 2147483647},
		{nullptr, -1, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.line ? c.line : "null");
		EXPECT_EQ(get_header_content(c.line), c.content);
		EXPECT_EQ(get_header_status(c.line), c.status);
	}
}

TEST_F(HelperString, MakesTransactionIdsOfTheTimeStampCounter)
{
	char *first = get_new_GUID(), *second = get_new_GUID();
	for (const char *id : {first, second}) {
		EXPECT_GE(strlen(id), 2u);
		EXPECT_EQ(strspn(id, "0123456789abcdef"), strlen(id));
		EXPECT_LE(strlen(id), 16u);
	}
	EXPECT_STRNE(first, second);
	efree(first);
	efree(second);
}

TEST_F(HelperString, CutsIdentityTexts)
{
	EXPECT_EQ(taken(get_string_param("a;r=12;x=9", ";r=", ';')), "12");
	EXPECT_EQ(taken(get_string_param("a;r=12;x=9", ";x=", ';')), "9");
	EXPECT_EQ(taken(get_string_param("a;r=;x=9", ";r=", ';')), "");
	EXPECT_EQ(get_string_param("a;r=12;x=9", ";q=", ';'), nullptr);
	EXPECT_EQ(get_string_param(nullptr, ";q=", ';'), nullptr);
	EXPECT_EQ(taken(get_application_and_instance_id("acc|app#1|x")), "app#1|x");
	EXPECT_EQ(get_application_and_instance_id("acc"), nullptr);

	const struct { const char *own, *parent; int same; } cases[] = {
		{"abc|1", "abcdef", 1}, {"abc|1", "abc", 1}, {"abc|1", "ab", 0},    {"abc|1", "abd|1", 0}, {"|x", "any", 1},
		{"|x", "", 1},          {"abc", "abc", 0},   {nullptr, "abc", 0}, {"abc|1", nullptr, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.own ? c.own : "null");
		EXPECT_EQ(is_same_account(c.own, c.parent), c.same);
	}
}

TEST_F(HelperString, SplitsText)
{
	using pieces = std::vector<std::string>;
	const struct { const char *text; int mode; pieces expected; } cases[] = {
		{"a b,,c\td", 0, {"a", "b", "c", "d"}},
		{"a,b|c", 1, {"a,b", "c"}},
		{",,", 2, {}},
		{"a&b[c] d?e", 3, {"a", "b", "c", "d?e"}},
		{"/u?a=1&b=2", 4, {"/u", "a=1", "b=2"}},
		{"a,b|c", 9, {"a,b|c"}},
		{"a,b", -1, {"a,b"}},
		{"\xc3\xa9t\xc3\xa9,\xc3\xa9,x\xc3\xa9", 2, {"t\xc3\xa9", "x\xc3\xa9"}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		char **array = get_str_array(c.text, c.mode);
		pieces found;
		for (char **at = array; *at; at++) {
			found.push_back(*at);
		}
		EXPECT_EQ(found, c.expected);
		free_str_array(array);
	}
	cArray *lines = get_c_array("\na\n\nb\n", '\n');
	ASSERT_EQ(lines->length, 2);
	EXPECT_STREQ(lines->items[0], "a");
	EXPECT_STREQ(lines->items[1], "b");
	free_c_array(lines);
	EXPECT_EQ(get_c_array("", ','), nullptr);
	EXPECT_EQ(get_str_array(nullptr, 0), nullptr);
	free_c_array(nullptr);
	free_str_array(nullptr);
}

static std::string repeated(const std::string &text, int times)
{
	std::string all;
	while (times-- > 0) {
		all += text;
	}
	return all;
}

TEST_F(HelperString, MatchesCapturedUrlsAndPassesOverBadPatterns)
{
	const struct { std::string patterns; const char *url; int captured; } cases[] = {
		{"^/shop/", "/Shop/1", 1},
		{"^/a$\n^/b$", "/b", 1},
		{"^/a$\n\n^/b$", "/ab", 0},
		{"[\n(\n/ok", "/ok", 1},
		{repeated("(", 30000) + "\n/ok", "/ok", 1},
		{"((((/ok{1,200}){1,200}){1,200}){1,200})\n/no", "/ok", 0},
		{"/a.b", "/a\nb", 0}, /* a dot does not match the end of a line */
		{"/a", nullptr, 0},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.patterns.substr(0, 40));
		ZQG(urls_captured) = const_cast<char *>(c.patterns.c_str());
		EXPECT_EQ(in_urls_captured(c.url TSRMLS_CC), c.captured);
	}
	ZQG(urls_captured) = nullptr;
	EXPECT_EQ(in_urls_captured("/a" TSRMLS_CC), 0);
}

TEST_F(HelperString, RefusesPatternsThatWouldHoldUpTheCompiler)
{
	const struct { std::string pattern; int bounded; } cases[] = {
		{"^/[0-9]{4}/[0-9]{2}/[0-9]{2}/[a-z]{1,200}$", 1}, /* side by side, not nested */
		{"([a-z]{1,10}/){1,10}", 1},
		{"([[:digit:]{}(+]{1,100}\\(){1,10}", 1},
		{repeated("[](]", 70) + repeated("[^](]", 70) + repeated("[[:digit:](]", 30), 1},
		{repeated("\\(", 512), 1},
		{repeated("a", 1024), 1},
		{repeated("a", 1025), 0},
		{repeated("(", 64) + "a" + repeated(")", 64), 1},
		{repeated("(", 65) + "a" + repeated(")", 65), 0},
		{repeated("(a)", 300), 1},
		{"a{1000}", 1},
		{"a{1001}", 0},
		{"a{1000,}", 0},
		{"a{1,2000}", 0},
		{"a{99999999999999999999}", 0},
		{"(a{1,40}){1,40}", 0},
		{"(x|(b(a{1,40})y)z){1,40}", 0},
		{"a{40}{40}", 0},
		{"a" + repeated("+", 9), 1},
		{"a" + repeated("+", 10), 0}, /* each one doubles what stands before it */
		{repeated("(", 10) + "a" + repeated("+)", 10), 0},
		{repeated("a{999}", 9), 0},
		{"(a)\\1", 0}, /* matching takes time without bound */
		{"(a)[\\1]\\\\1\\0", 1},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.pattern.substr(0, 60));
		EXPECT_EQ(zq_regex_is_bounded(c.pattern.c_str()), c.bounded);
		if (!c.bounded) {
			continue;
		}
		auto begin = std::chrono::steady_clock::now();
		regex_t regex;
		ASSERT_EQ(regcomp(&regex, c.pattern.c_str(), REG_EXTENDED), 0);
		regfree(&regex);
		EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
	}
	EXPECT_EQ(zq_regex_is_bounded(nullptr), 0);
	EXPECT_EQ(zq_regex_is_bounded("[[:a"), 1); /* unfinished ones end the scan, and do not compile */
}

TEST_F(HelperString, MakesNamesOfPaths)
{
	const struct { const char *path, *name; } cases[] = {
		{"/a/b/c/2016", "%2Fa%2Fb%2Fc%2F*"},
		{"/a/12/c", "%2Fa%2F12%2Fc"},
		{"/a/b/x5", "%2Fa%2Fb%2Fx5"},
		{"/a/b/12x3y45/6", "%2Fa%2Fb%2F*x3y*%2F6"},
		{"http://10.0.0.12:8080/v/77?k=8", "http:%2F%2F10.0.0.12:8080%2Fv%2F*"},
		{"?x", ""},
		{nullptr, ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.path ? c.path : "null");
		smart_str name = {};
		zq_append_web(&name, c.path);
		EXPECT_EQ(taken(name), c.name);
	}
}

TEST_F(HelperString, ReadsSettings)
{
	const struct { const char *text; int number, record_type; } cases[] = {
		{"TRUE", 1, 0}, {"true", 1, 0},   {"truely", 0, 0},  {"on", 0, 0},  {"yes", 0, 0},
		{"12abc", 12, 0}, {" -3", -3, 0}, {"", 0, 0},        {nullptr, 0, 0}, {"99999999999999999999", 2147483647, 0},
		{"-99999999999", -2147483647 - 1, 0}, {"Raw", 0, 1}, {"OBFUSCATED", 0, 2}, {"rawer", 0, 0}, {"ra", 0, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text ? c.text : "null");
		EXPECT_EQ(zq_str_to_int(c.text), c.number);
		EXPECT_EQ(zq_record_type_to_int(c.text), c.record_type);
	}
}

TEST_F(HelperString, ComparesByAsciiWithoutCase)
{
	EXPECT_STREQ(zq_strcasestr("xContENT", "content"), "ContENT");
	EXPECT_STREQ(zq_strcasestr("abc", ""), "abc");
	EXPECT_EQ(zq_strcasestr("abc", "abcd"), nullptr);
	EXPECT_EQ(zq_strcasestr("", "a"), nullptr);
	EXPECT_EQ(zq_strncasecmp("ABc", "abD", 2), 0);
	EXPECT_LT(zq_strncasecmp("a", "\xc3", 1), 0);
	EXPECT_EQ(zq_strncasecmp("a\0x", "A\0y", 3), 0); /* like the C library's: nothing behind the end */
	EXPECT_EQ(zq_ascii_upper('\xe9'), '\xe9');
}

TEST_F(HelperString, BuildsLongBuffersAndHashesSignedBytes)
{
	smart_str buf = {};
	EXPECT_STREQ(zq_buffer_text(&buf), "");
	for (int i = 0; i < 300000; i++) {
		zq_append_long(&buf, i % 10);
	}
	zq_append_long(&buf, -9223372036854775807L - 1);
	zq_append_text(&buf, nullptr);
	std::string text = taken(buf);
	ASSERT_EQ(text.size(), 300020u);
	EXPECT_EQ(text.substr(299998), "89-9223372036854775808");

	EXPECT_EQ(zq_name_hash(""), 5381u);
	EXPECT_EQ(zq_name_hash("ab"), ((5381u * 33 ^ 'a') * 33 ^ 'b'));
	EXPECT_EQ(zq_name_hash("\xff"), (uint64)(5381u * 33) ^ ~(uint64)0);
}
