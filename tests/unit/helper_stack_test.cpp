#include "engine_fixture.h"

class HelperStack : public EngineTest {};

TEST_F(HelperStack, WritesAFrameFromThePartsItHas)
{
	const auto json = [this](const std::string &frame) {
		smart_str buf = {};
		zq_get_stack_object_json(&buf, value(frame) TSRMLS_CC);
		return taken(buf);
	};
	expect_made(json, {
		{"array('class' => 'C', 'function' => 'm', 'file' => 'a.php', 'line' => -3)", "\"C.m(a.php:-3)\""},
		{"array('function' => 'f', 'file' => 'a.php')", "\"f(a.php)\""},
		{"array('function' => 'f', 'line' => 3)", "\"f\""},
		{"array('class' => 'N\\\\C', 'function' => \"\\0lambda\", 'file' => '\"/x')", "\"N\\\\C.(\\\"/x)\""},
		{"array('class' => 1, 'function' => null, 'file' => array(), 'line' => 'x')", "\"\""},
		{"(object) array('function' => 'f')", "\"f\""},
		{"'text'", "null"},
	});
}

