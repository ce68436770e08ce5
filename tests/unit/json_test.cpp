#include <clocale>

#include "engine_fixture.h"
#include "zqp_json.h"

class Json : public EngineTest {
protected:
	std::string escaped(const std::string &text, int add_quote)
	{
		smart_str buf = {};
		json_escape_string(&buf, text.data(), text.size(), add_quote);
		return taken(buf);
	}
	std::string encoded(zval *val, int option = 0)
	{
		smart_str buf = {};
		zq_json_encode(&buf, val, option TSRMLS_CC);
		return taken(buf);
	}
	std::string encoded(const std::string &expression, int option = 0) { return encoded(value(expression), option); }
};

TEST_F(Json, EscapesTextAndCutsItAtTheFirstBadByte)
{
	using std::string;
	const struct { string text, body; } cases[] = {
		{"", ""},
		{"a/b", "a/b"},
		{"\b\t\n\f\r\"\\", "\\b\\t\\n\\f\\r\\\"\\\\"},
		{"\x01\x1f\x7f", "\x01\x1f\x7f"},
		{"a\xc3\xa9z", "a\\u00e9z"},
		{"\xe2\x82\xac", "\\u20ac"},
		{"\xf0\x9f\x98\x80", "\\ud83d\\ude00"}, /* U+1F600: low 16 bits F600 */
		{"\xf4\x8f\xbf\xbf", "\\ud83f\\udfff"}, /* U+10FFFF */
		{string("ab\0cd", 5), "ab"},
		{"ab\xff" "cd", "ab"},
		{"ab\xc3", "ab"},                       /* cut off */
		{"ab\xc3(", "ab"},
		{"\x80" "a", ""},
		{"a\xc0\xaf", "a"},                     /* overlong "/" */
		{"a\xe0\x80\xaf", "a"},
		{"a\xf0\x80\x80\xaf", "a"},
		{"a\xed\xa0\x80", "a"},                 /* surrogate */
		{"a\xf4\x90\x80\x80", "a"},             /* beyond U+10FFFF */
		{"a\xf8\x88\x80\x80\x80", "a"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(::testing::PrintToString(c.text));
		EXPECT_EQ(escaped(c.text, 0), c.body);
		EXPECT_EQ(escaped(c.text, 1), '"' + c.body + '"');
	}
	smart_str buf = {};
	json_escape_string(&buf, "abc", 2, 0);
	json_escape_string(&buf, nullptr, 9, 1);
	EXPECT_EQ(taken(buf), "ab\"\"");
}

TEST_F(Json, WritesEveryTypeOfValue)
{
	const struct { const char *expression, *json; } cases[] = {
		{"-9223372036854775807 - 1", "-9223372036854775808"},
		{"0.1", "0.1"},
		{"1e100", "1e+100"},
		{"-1234567890.5", "-1.23456789e+09"},
		{"INF", "0"},
		{"-INF", "0"},
		{"NAN", "0"},
		{"true", "true"},
		{"false", "false"},
		{"null", "null"},
		{"fopen('php://memory', 'r')", "null"},
		{"\"q\\\"/\"", "\"q\\\"/\""},
		{"array()", "[]"},
		{"array(0 => 1, 5 => 2)", "[1,2]"},
		{"array(0 => 1, 'x' => 2)", "{1,\"x\":2}"},
		{"array('' => 1, 'x' => array('y' => null))", "{\"x\":{\"y\":null}}"},
		{"array('' => 1)", "{}"},
		{"(object) array('a' => 1)", "{\"a\":1}"},
		{"new ArrayObject(array(1))", "null"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.expression);
		EXPECT_EQ(encoded(c.expression), c.json);
	}
	EXPECT_EQ(encoded((zval *)nullptr), "null");
}

TEST_F(Json, WritesNumbersWithAPointInEveryLocale)
{
	zval *number = value("-1.5");
	/* a locale whose decimal point has two bytes */
	const std::string folder = runtime_root() + "/locales";
	ASSERT_EQ(system(("mkdir " + folder + " && localedef -i ps_AF -f UTF-8 " + folder + "/pashto").c_str()), 0);
	setenv("LOCPATH", folder.c_str(), 1);
	ASSERT_NE(setlocale(LC_ALL, "pashto"), nullptr);
	ASSERT_STREQ(localeconv()->decimal_point, "\xd9\xab");
	EXPECT_EQ(encoded(number), "-1.5");
	setlocale(LC_ALL, "C");
	unsetenv("LOCPATH");
}

TEST_F(Json, HidesNonPublicPropertiesAndTheKeysOfOptionOne)
{
	run("class P { private $a = 1; protected $b = 2; public $c = 3; }");
	EXPECT_EQ(encoded("new P"), "{\"c\":3}");
	const char *frame = "array('args' => 1, 'argsX' => 2, 'in' => array('object' => 3, 'Args' => 4))";
	EXPECT_EQ(encoded(frame, 0), "{\"args\":1,\"argsX\":2,\"in\":{\"object\":3,\"Args\":4}}");
	EXPECT_EQ(encoded(frame, 1), "{\"argsX\":2,\"in\":{\"Args\":4}}");
}

TEST_F(Json, EndsOnCircularDeepAndEndlesslySharedValues)
{
	run("$a = array(1); $a[] = &$a; $o = new stdClass; $o->self = $o; $twin = array(7); $twins = array($twin, $twin);"
	    "function nest($n) { $v = array(); while (--$n) $v = array($v); return $v; }"
	    "$shared = array(); for ($i = 0; $i < 60; $i++) $shared = array($shared, $shared);");
	EXPECT_EQ(encoded("$o"), "{\"self\":null}");
	EXPECT_NE(encoded("$a").find("null"), std::string::npos);
	EXPECT_EQ(encoded("$twins"), "[[7],[7]]");
	EXPECT_EQ(encoded("nest(64)"), std::string(64, '[') + std::string(64, ']'));
	EXPECT_EQ(encoded("nest(65)"), std::string(64, '[') + "null" + std::string(64, ']'));
	EXPECT_LT(encoded("$shared").size(), 17u << 20);
}

TEST_F(Json, LeavesTheValueAsItWas)
{
	run("$d = new DateTime('2016-01-01'); $r = array(1); $r['r'] = &$r;"
	    "class J implements JsonSerializable { public $v = 1; function jsonSerialize() { probe($this); return 2; } }");
	encoded("$d");
	EXPECT_EQ(run("var_dump(isset($d->date));"), "bool(false)\n");
	/* the engine's own encoder is at work on the same object */
	std::string seen;
	at_probe([&](zend_execute_data *frame) { seen = encoded(get_argument_zval(frame, 0)); });
	EXPECT_EQ(run("echo json_encode(array(new J));"), "[2]");
	EXPECT_EQ(seen, "{\"v\":1}");
}

TEST_F(Json, WritesAPlanRowAsTwoAlignedLists)
{
	const struct { const char *expression, *names, *values; } cases[] = {
		{"array('id' => 1, 5 => 'skipped', 'key' => null, 'ref' => array('args' => 1))",
		 "[\"id\",\"key\",\"ref\"]", "[1,null,{}]"},
		{"(object) array('QUERY PLAN' => 'Seq \"x\"')", "[\"QUERY PLAN\"]", "[\"Seq \\\"x\\\"\"]"},
		{"array(1, 2)", "[]", "[]"},
		{"'text'", "null", "null"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.expression);
		smart_str names = {}, values = {};
		zq_get_explain_header_json(&names, value(c.expression) TSRMLS_CC);
		zq_get_explain_object_json(&values, value(c.expression) TSRMLS_CC);
		EXPECT_EQ(taken(names), c.names);
		EXPECT_EQ(taken(values), c.values);
	}
}
