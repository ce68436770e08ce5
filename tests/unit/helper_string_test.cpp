#include <ctime>
#include <random>
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
	const auto captured = [](const std::string &patterns) {
		return std::string(in_urls_captured("/Ok\nb", patterns.c_str()) ? "yes" : "no");
	};
	expect_made(captured, {
		{"^/ok$", "yes"}, {"k.b", "no"}, /* a dot does not match the end of a line */
		{"^/o$\n\n^k$", "no"},          /* an empty line is no pattern */
		{"[\n(\n/ok", "yes"}, {"((((/ok{1,200}){1,200}){1,200}){1,200})", "no"},
	});
}

static std::string times(int count, const std::string &text)
{
	std::string all;
	for (int i = 0; i < count; i++) {
		all += text;
	}
	return all;
}

TEST_F(HelperString, RefusesPatternsThatCouldTakeLongAndBoundsTheOthers)
{
	const size_t most = ZQ_REGEX_MOST_BYTES;
	const std::string words = times(63, "checkout-pay|") + "checkout-pay"; /* 64 alternatives */
	const std::tuple<std::string, size_t, size_t> cases[] = { /* pattern, bytes looked at: at least, at most */
		{"[a-z]+@", most, most}, {"^/(" + words + ")/.*\\.html$", most, most}, {"(" + words + ").*x", most, most}, {".*(" + words + ")", most, most},
		{".*a" + times(1000, ".") + "b", most, most}, {times(500, "a?") + ".*b", 2048, most},
		{times(1024, "a"), most, most}, {times(1025, "a"), 0, 0}, {times(64, "(") + times(64, ")"), most, most}, {times(65, "(") + times(65, ")"), 0, 0},
		{"a{1000}", most, most}, {"a{1001}", 0, 0}, {"a{1001,}", 0, 0}, {"a{1,2000}", 0, 0}, {"a{40}{40}", 0, 0}, {"(x|(b(a{1,40})y)z){1,40}", 0, 0},
		{"a{999}b{999}c{999}d{999}e{999}f{999}g{999}", 0, 0}, {"(a?){1000}", 0, 0}, {"a{1,900}", 1, 4096}, {"a" + times(20, "+"), most, most},
		{"(a)\\1", 0, 0}, {"(a)[\\1]\\\\1\\0", most, most}, {"[[:a", most, most}, {"a{99999999999}", most, most}, /* the last two do not compile */
	};
	for (const auto &[pattern, least, greatest] : cases) {
		clock_t begin = clock();
		size_t len = zq_regex_examined_len(pattern.c_str());
		EXPECT_TRUE(len >= least && len <= greatest) << len << " " << pattern.substr(0, 60);
		zq_regex_matches(times(50000, "a").c_str(), pattern.c_str());
		EXPECT_LT(clock() - begin, CLOCKS_PER_SEC / 10) << pattern.substr(0, 60); /* bench/naming.py measures it */
	}
}

TEST_F(HelperString, MatchesTheBeginningOfALongText)
{
	const std::string edge = times(8190, "x") + "yz", longer = edge + "yz";
	const std::tuple<std::string, const char *, int> cases[] = {
		{edge, "yz$", 1}, {longer, "YZ", 1}, {longer, "yz$", 0}, {longer, "y$", 0}, {longer, "yzyz", 0}, {longer, "^x{5}", 1},
		{longer, "z\\b", 0}, {edge + " y", "z\\b", 1}, {"caf\xc3\xa9", "caf..$", 1}, {"\xff", "[^a]", 1},
	};
	for (const auto &[subject, pattern, matches] : cases) {
		EXPECT_EQ(zq_regex_matches(subject.c_str(), pattern), matches) << subject.size() << " " << pattern;
	}
}

/* Random patterns and texts, the same each time. The tests' locale is the library's own. */
TEST_F(HelperString, MatchesAsTheCLibraryDoes)
{
	const char *const pieces[] = {"a", "b", "c", "A", "/", "1", ".", "a", "b", "^", "$", "\\b", "\\B", "\\<", "\\>", "\\`", "\\'", "\\w", "\\W", "\\s", "\\S",
		"\\.", "[ab]", "[^a]", "[a-c]", "[[:alpha:]]", "[[:digit:]_]", "[]a]", "[^]a]", "[a-]", "[-a]", "[[.a.]]", "[[=b=]]", "[C-a]", "[Z-a]", "[a-c-e]",
		"[[:foo:]]", "[", ")", "(", ")", "(", "(", "|", "|", "*", "+", "?", "*", "{2}", "{1,2}", "{,2}", "{0}", "{2,}", "{", "{,", "{1", "{2,1}", "}", "\n",
		"_", "\\\\", "[\\n]", "[W-z]", "()"};
	const std::string bytes = "aabbccABC/1._ \n-\\";
	std::minstd_rand random(1);
	int matched = 0;
	for (int i = 0; i < 30000; i++) {
		std::string pattern, subject;
		for (size_t left = 1 + random() % 9; left; left--) {
			pattern += pieces[random() % std::size(pieces)];
		}
		for (size_t left = random() % 14; left; left--) {
			subject += bytes[random() % bytes.size()];
		}
		regex_t library;
		int found = 0;
		if (regcomp(&library, pattern.c_str(), REG_EXTENDED | REG_ICASE | REG_NEWLINE | REG_NOSUB) == 0) {
			found = regexec(&library, subject.c_str(), 0, NULL, 0) == 0;
			regfree(&library);
		}
		matched += found;
		ASSERT_EQ(zq_regex_matches(subject.c_str(), pattern.c_str()), found) << pattern << "\n" << subject;
	}
	EXPECT_GT(matched, 2000);
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
	EXPECT_EQ(zq_strncasecmp("a\0x", "A\0y", 3), 0); /* like the C library's: nothing after the end */
	EXPECT_EQ(zq_name_hash("\xff"), (uint64)(5381u * 33) ^ ~(uint64)0);
}
