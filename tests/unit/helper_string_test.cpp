#include <ctime>
#include <regex.h>

#include "engine_fixture.h"

class HelperString : public EngineTest {};

TEST_F(HelperString, ObfuscatesEveryDigitAndQuotedText)
{
	const auto shown = [](std::string sql) { return zq_obfuscate_sql(sql.data()), sql; };
	expect_made(shown, {
		{"select * from t1 where a='xy' and b=12", "select * from t? where a='?\?' and b=?\?"},
		{"a=\"it's\" and c", "a=\"?\?'?\"?????\?"},
		{"'a''b' x", "'?''?' x"},
		{"'a\\' 7", "'?\?' ?"},
		{"a\tb\nc\rd '\t'", "a b c d ' '"},
		{"'\xc3\xa9'", "'?\?'"},
	});
}

TEST_F(HelperString, CutsAndCleansPathsAndNames)
{
	const auto behind_suffix = [](const std::string &text) {
		const char *at = zq_php_pos(text.data(), (int)text.size());
		return std::string(at ? at : "none");
	};
	expect_made(behind_suffix, {{"/a.php/b", "/b"}, {"/a.PhP", ""}, {"a.phpx.php", "x.php"}, {".php", "none"}, {".phpx", "x"}});
	EXPECT_EQ(zq_php_pos("/a.php", 5), nullptr); /* ends before the last letter */
	expect_made([](std::string text) { return zq_str_replace_ln(text.data()), text; }, {{"a\x01\x1f\n \x7f\xc3\xa9", "a    \x7f\xc3\xa9"}});
	expect_made([](std::string text) { return zq_str_replace_to_dot(text.data()), text; }, {{"/a\\b.c", ".a.b.c"}});
	expect_made([](const std::string &path) { return zq_get_base_filename(path.c_str()); },
	            {{"/a/b/c.php", "b/c.php"}, {"/a/c.php", "a/c.php"}, {"/c.php", "/c.php"}, {"c.php", "c.php"}, {"a//", "/"}});
	const auto web_name = [](const std::string &path) {
		smart_str name = {};
		zq_append_web(&name, path.c_str());
		return taken(name);
	};
	expect_made(web_name, {
		{"/a/12/c", "%2Fa%2F12%2Fc"}, /* the first three parts keep their digits: they hold host and port */
		{"/a/b/12x3y45/6", "%2Fa%2Fb%2F*x3y*%2F6"},
		{"http://10.0.0.12:8080/v/77?k=8", "http:%2F%2F10.0.0.12:8080%2Fv%2F*"},
		{"?x", ""},
	});
}

TEST_F(HelperString, ReadsResponseHeaderLines)
{
	const auto read = [](const std::string &line) {
		return "html " + std::to_string(get_header_content(line.c_str())) + " status " + std::to_string(get_header_status(line.c_str()));
	};
	expect_made(read, {
		{"CONTENT-TYPE: TEXT/HTML; charset=utf-8", "html 1 status 0"}, {"text/html content-type: image/png", "html 0 status 0"},
		{"Content-Length: 10", "html 0 status 0"}, {"X-A: b", "html -1 status 0"}, {"Status: http/1.0\t503", "html -1 status 503"},
		{"HTTP/1.1", "html -1 status 0"}, {"HTTP/2 500", "html -1 status 0"}, {"HTTP/1.1 99999999999999999999", "html -1 status 2147483647"},
	});
}

TEST_F(HelperString, SplitsText)
{
	const char *const texts[] = {"a b,,c\td", "a,b|c", "\xc3\xa9t\xc3\xa9,\xc3\xa9,x", "a&b[c] d?e", "/u?a=1&b", "a,b"}; /* by mode; the last is unknown */
	std::string pieces;
	for (int mode = 0; mode < 6; mode++) {
		char **array = get_str_array(texts[mode], mode);
		for (char **at = array; *at; at++) {
			pieces += std::string(*at) + (at[1] ? "+" : "; ");
		}
		free_str_array(array);
	}
	EXPECT_EQ(pieces, "a+b+c+d; a,b+c; t\xc3\xa9+x; a+b+c+d?e; /u+a=1+b; a,b; ");
}

TEST_F(HelperString, MatchesCapturedUrlsAndPassesOverBadPatterns)
{
	const auto captured = [this](const std::string &patterns) {
		ZQG(urls_captured) = const_cast<char *>(patterns.c_str());
		return std::string(in_urls_captured("/Ok\nb" TSRMLS_CC) ? "yes" : "no");
	};
	expect_made(captured, {
		{"^/ok$", "yes"}, {"k.b", "no"}, /* a dot does not match the end of a line */
		{"^/o$\n\n^k$", "no"},          /* an empty line is no pattern */
		{"[\n(\n/ok", "yes"}, {"((((/ok{1,200}){1,200}){1,200}){1,200})", "no"},
	});
	ZQG(urls_captured) = nullptr;
}

TEST_F(HelperString, RefusesPatternsThatWouldHoldUpTheCompiler)
{
	const std::pair<std::string, int> cases[] = {
		{"^/[0-9]{4}/[0-9]{2}/[0-9]{2}/[a-z]{1,200}$", 1}, /* side by side, not nested */
		{"([a-z]{1,10}/){1,10}", 1},
		{"([[:digit:]{}(+]{1,100}\\(){1,10}", 1}, {"[]a{2000}]", 1}, {"[^]a{2000}]", 1}, {"[[:digit:]a{2000}]", 1},
		{std::string(1024, 'a'), 1}, {std::string(1025, 'a'), 0},
		{std::string(64, '(') + std::string(64, ')'), 1}, {std::string(65, '(') + std::string(65, ')'), 0},
		{"a{1000}", 1}, {"a{1001}", 0}, {"a{1000,}", 0}, {"a{1,2000}", 0}, {"a{99999999999999999999}", 0},
		{"(x|(b(a{1,40})y)z){1,40}", 0}, {"a{40}{40}", 0}, {"a{999}b{999}c{999}d{999}", 0},
		{"a" + std::string(9, '+'), 1}, {"a" + std::string(10, '+'), 0}, /* each one doubles what stands before it */
		{"a??{0,999}", 1}, {"a" + std::string(21, '?') + "{0,999}", 0}, /* copies bring their repeats along */
		{"((a?){1,200})+", 0}, {"((x|^){1,100})*", 0}, {"((a?){1,12})+", 1}, {"(/[a-z]{0,200})+", 1}, /* round and round nothing */
		{"(a)\\1", 0}, {"(a)[\\1]\\\\1\\0", 1},                         /* matching a reference takes time without bound */
		{"[[:a", 1},                                                     /* unfinished: ends the scan, and does not compile */
	};
	for (const auto &[pattern, bounded] : cases) {
		EXPECT_EQ(zq_regex_is_bounded(pattern.c_str()), bounded) << pattern.substr(0, 60);
		clock_t begin = clock();
		regex_t regex;
		if (bounded && regcomp(&regex, pattern.c_str(), REG_EXTENDED) == 0) {
			regfree(&regex);
		}
		EXPECT_LT(clock() - begin, CLOCKS_PER_SEC) << pattern.substr(0, 60);
	}
}

TEST_F(HelperString, MatchesTheBeginningOfALongText)
{
	const std::string edge = std::string(2046, 'x') + "yz", longer = edge + "yz";
	const std::tuple<std::string, const char *, int> cases[] = {
		{edge, "yz$", 1}, {longer, "YZ", 1}, {longer, "yz$", 0}, {longer, "y$", 0}, {longer, "yzyz", 0}, {longer, "^x{5}", 1},
		{"", "^$", 1}, {"a\nb", "^b$", 1}, {"a\nb", "a.b", 0}, {"a", "[", 0},
		{std::string(600, 'x') + "y", "x*y", 1}, {std::string(600, 'x') + "y", "(x|z){200}*y", 0}, /* a large pattern sees less */
	};
	for (const auto &[subject, pattern, matches] : cases) {
		EXPECT_EQ(zq_regex_matches(subject.c_str(), pattern), matches) << subject.size() << " " << pattern;
	}
	std::string megabytes(8 << 20, 'a'); /* the matcher begins anew at every byte */
	for (size_t i = 1; i < megabytes.size(); i++) {
		megabytes[i] = "ab"[(i * i >> 3) % 7 & 1];
	}
	for (const char *pattern : {"[a-z]+@", "(a|b)*a(a|b){60}c", "(.*a){0,}.{500}c", "[ab]+a[ab]{990}c", "a{1,990}c"}) {
		clock_t begin = clock();
		EXPECT_EQ(zq_regex_matches(megabytes.c_str(), pattern), 0);
		EXPECT_LT(clock() - begin, 2 * CLOCKS_PER_SEC) << pattern;
	}
}

TEST_F(HelperString, ReadsSettings)
{
	const auto read = [](const std::string &text) {
		return std::to_string(zq_str_to_int(text.c_str())) + " " + std::to_string(zq_record_type_to_int(text.c_str()));
	};
	expect_made(read, {
		{"TRUE", "1 0"}, {"truely", "0 0"}, {"on", "0 0"}, {"12abc", "12 0"}, {" -3", "-3 0"}, {"", "0 0"}, {"Raw", "0 1"}, {"rawer", "0 0"},
		{"OBFUSCATED", "0 2"}, {"99999999999999999999", "2147483647 0"}, {"-99999999999", "-2147483648 0"},
	});
}

TEST_F(HelperString, ComparesByAsciiAndHashesSignedBytes)
{
	EXPECT_LT(zq_strncasecmp("a", "\xc3", 1), 0);
	EXPECT_EQ(zq_strncasecmp("a\0x", "A\0y", 3), 0); /* like the C library's: nothing behind the end */
	EXPECT_EQ(zq_name_hash("\xff"), (uint64)(5381u * 33) ^ ~(uint64)0);
}
