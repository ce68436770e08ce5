#include <algorithm>

#include "engine_fixture.h"

class HelperStack : public EngineTest {
protected:
	std::string exception_stack(zval *exception)
	{
		smart_str buf = {};
		zq_get_exception_stack(exception, &buf TSRMLS_CC);
		return taken(buf);
	}
};

TEST_F(HelperStack, WritesAFrameFromThePartsItHas)
{
	const struct { const char *frame, *json; } cases[] = {
		{"array('class' => 'C', 'function' => 'm', 'file' => 'a.php', 'line' => 3)", "\"C.m(a.php:3)\""},
		{"array('file' => 'a.php', 'line' => 3)", "\"(a.php:3)\""},
		{"array('function' => 'f', 'file' => 'a.php', 'line' => -3)", "\"f(a.php:-3)\""},
		{"array('function' => 'f', 'file' => 'a.php')", "\"f(a.php)\""},
		{"array('function' => 'f', 'line' => 3)", "\"f\""},
		{"array('class' => 'N\\\\C', 'function' => \"\\0lambda\", 'file' => '\"/x')", "\"N\\\\C.(\\\"/x)\""},
		{"array('class' => 1, 'function' => null, 'file' => array(), 'line' => 'x')", "\"\""},
		{"(object) array('function' => 'f')", "\"f\""},
		{"'text'", "null"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.frame);
		smart_str buf = {};
		zq_get_stack_object_json(&buf, value(c.frame) TSRMLS_CC);
		EXPECT_EQ(taken(buf), c.json);
	}
	smart_str buf = {};
	zq_get_stack_object_json(&buf, nullptr TSRMLS_CC);
	EXPECT_EQ(taken(buf), "null");
}

TEST_F(HelperStack, WritesTheRunningCodeInnermostFirstUpToTwentyFrames)
{
	EXPECT_EQ(taken(zq_code_stack_text(TSRMLS_C)), "[]");
	std::string stack;
	at_probe([&](zend_execute_data *) { stack = taken(zq_code_stack_text(TSRMLS_C)); });
	run("class C {\nfunction m($secret) {\nprobe();\n}\nfunction down($n) {\n$n ? $this->down($n - 1) : $this->m('secret');\n} }");
	run("$c = new C;\n$c->down(0);");
	EXPECT_EQ(stack, "[\"probe(test:3)\",\"C.m(test:6)\",\"C.down(test:2)\"]");
	run("$c->down(100);");
	EXPECT_EQ(std::count(stack.begin(), stack.end(), '('), 20);
}

TEST_F(HelperStack, WritesAnExceptionsOwnTrace)
{
	run("function thrower($class) {\nreturn new $class('m'); }\n"
	    "class Open extends Exception { public $file = 'open.php'; public $line = 9; }"
	    "class Bare extends Exception { function __construct() { unset($this->file); }"
	    " function __get($name) { probe($name); return 'looked up'; } }"
	    "class Traceable { private $file = 'hidden'; function getTrace() { return array(array('function' => 'f'), 5); } }"
	    "class Refusing { function getTrace() { throw new Exception; } }");
	bool looked_up = false;
	at_probe([&](zend_execute_data *) { looked_up = true; });
	const struct { const char *expression, *json; } cases[] = {
		{"thrower('Exception')", "[\"Exception(test:2)\",\"thrower(test:1)\"]"},
		{"thrower('Bare')", "[\"Exception\",\"thrower(test:1)\"]"},
		{"new Traceable", "[\"Exception\",\"f\",null]"},
		{"new Refusing", "[\"Exception\"]"},
		{"new stdClass", "[\"Exception\"]"},
		{"'text'", "[\"Exception\"]"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.expression);
		EXPECT_EQ(exception_stack(value(c.expression)), c.json);
	}
	EXPECT_EQ(exception_stack(nullptr), "[\"Exception\"]");
	EXPECT_FALSE(looked_up);
	EXPECT_EQ(exception_stack(value("new Open")).substr(0, 17), "[\"Exception(test:");
}

TEST_F(HelperStack, FindsTheLineOfTheCallingCode)
{
	char *file = nullptr;
	int line = -1;
	zend_execute_data native = {};
	at_probe([&](zend_execute_data *frame) {
		native.prev_execute_data = frame;
		line = zq_calling_line(&native, &file TSRMLS_CC);
	});
	run("\n\nprobe();");
	EXPECT_EQ(line, 3);
	EXPECT_EQ(taken(file), "test");
	at_probe([&](zend_execute_data *frame) {
		zend_throw_exception(zend_exception_get_default(TSRMLS_C), (char *)"pending", 0 TSRMLS_CC);
		line = zq_calling_line(frame, nullptr TSRMLS_CC);
	});
	run("try {\nprobe();\n} catch (Exception $e) {}");
	EXPECT_EQ(line, 2);
	native.prev_execute_data = nullptr;
	EXPECT_EQ(zq_calling_line(&native, &file TSRMLS_CC), 0);
	EXPECT_EQ(file, nullptr);
	EXPECT_EQ(zq_calling_line(nullptr, nullptr TSRMLS_CC), 0);
}
