#include <clocale>

#include "engine_fixture.h"
#include "zqp_json.h"

class Json : public EngineTest {
protected:
	std::string encoded(zval *val, int option = 0)
	{
		smart_str buf = {};
		zq_json_encode(&buf, val, option TSRMLS_CC);
		return taken(buf);
	}
};

TEST_F(Json, EscapesTextAndCutsItAtTheFirstBadByte)
{
	const auto body = [](const std::string &text) {
		smart_str buf = {};
		json_escape_string(&buf, text.data(), text.size(), 0);
		return taken(buf);
	};
	expect_made(body, {
		{"", ""}, {"a/b", "a/b"}, {"\b\t\n\f\r\"\\", "\\b\\t\\n\\f\\r\\\"\\\\"}, {"\x01\x1f\x7f", "\x01\x1f\x7f"},
		{"a\xc3\xa9z", "a\\u00e9z"}, {"\xe2\x82\xac", "\\u20ac"},
		{"\xf0\x9f\x98\x80", "\\ud83d\\ude00"}, /* U+1F600: low 16 bits F600 */
		{"\xf4\x8f\xbf\xbf", "\\ud83f\\udfff"}, /* U+10FFFF */
		{std::string("ab\0cd", 5), "ab"}, {"ab\xff" "cd", "ab"}, {"ab\xc3", "ab"}, {"ab\xc3(", "ab"}, {"\x80" "a", ""},
		{"a\xc0\xaf", "a"}, {"a\xe0\x80\xaf", "a"}, {"a\xf0\x80\x80\xaf", "a"},             /* overlong */
		{"a\xed\xa0\x80", "a"}, {"a\xf4\x90\x80\x80", "a"}, {"a\xf8\x88\x80\x80\x80", "a"}, /* surrogate, beyond U+10FFFF */
	});
	smart_str buf = {};
	json_escape_string(&buf, "abc", 2, 1);
	json_escape_string(&buf, nullptr, 9, 1);
	EXPECT_EQ(taken(buf), "\"ab\"\"\"");
}

TEST_F(Json, WritesEveryTypeOfValueAndEnds)
{
	run("class P { private $a = 1; protected $b = 2; public $c = 3; } $o = new stdClass; $o->self = $o; $twin = array(7);"
	    "function nest($n) { $v = array(); while (--$n) $v = array($v); return $v; }");
	expect_made([this](const std::string &expression) { return encoded(value(expression)); }, {
		{"-9223372036854775807 - 1", "-9223372036854775808"}, {"0.1", "0.1"}, {"1e100", "1e+100"},
		{"-1234567890.5", "-1.23456789e+09"}, {"-INF", "0"}, {"NAN", "0"}, {"true", "true"}, {"null", "null"},
		{"fopen('php://memory', 'r')", "null"}, {"\"q\\\"/\"", "\"q\\\"/\""}, {"array()", "[]"}, {"array(0 => 1, 5 => 2)", "[1,2]"},
		{"array(0 => 1, 'x' => 2)", "{1,\"x\":2}"}, {"array('' => 1, 'x' => array('y' => null))", "{\"x\":{\"y\":null}}"},
		{"array('' => 1)", "{}"}, {"new P", "{\"c\":3}"}, {"new ArrayObject(array(1))", "null"},
		{"$o", "{\"self\":null}"}, {"array($twin, $twin)", "[[7],[7]]"},
		{"nest(64)", std::string(64, '[') + std::string(64, ']')},
		{"nest(65)", std::string(64, '[') + "null" + std::string(64, ']')},
	});
	zval *frame = value("array('args' => 1, 'argsX' => 2, 'in' => array('object' => 3, 'Args' => 4))");
	smart_str buf = {};
	json_encode_array(&buf, frame, 1 TSRMLS_CC);
	EXPECT_EQ(taken(buf), "{\"argsX\":2,\"in\":{\"Args\":4}}");
	run("$shared = array(); for ($i = 0; $i < 60; $i++) $shared = array($shared, $shared);"); /* 2 to the power of 60 parts */
	EXPECT_LT(encoded(value("$shared")).size(), 17u << 20);
}

TEST_F(Json, WritesNumbersWithAPointInEveryLocale)
{
	zval *number = value("-1.5");
	/* a locale whose decimal point has two bytes */
	const std::string folder = runtime_root() + "/locales";
	ASSERT_EQ(system(("mkdir -p " + folder + " && localedef -i ps_AF -f UTF-8 " + folder + "/pashto").c_str()), 0);
	setenv("LOCPATH", folder.c_str(), 1);
	ASSERT_NE(setlocale(LC_ALL, "pashto"), nullptr);
	ASSERT_STREQ(localeconv()->decimal_point, "\xd9\xab");
	EXPECT_EQ(encoded(number), "-1.5");
	setlocale(LC_ALL, "C");
	unsetenv("LOCPATH");
}

TEST_F(Json, LeavesTheValueAsItWas)
{
	run("$d = new DateTime('2016-01-01');"
	    "class J implements JsonSerializable { public $v = 1; function jsonSerialize() { probe($this); return 2; } }");
	encoded(value("$d"));
	EXPECT_EQ(run("var_dump(isset($d->date));"), "bool(false)\n");
	/* the engine's own encoder is at work on the same object */
	std::string seen;
	at_probe([&](zend_execute_data *frame) { seen = encoded(get_argument_zval(frame, 0)); });
	EXPECT_EQ(run("echo json_encode(array(new J));"), "[2]");
	EXPECT_EQ(seen, "{\"v\":1}");
}

