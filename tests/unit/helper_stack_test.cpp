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

/* Between two calls a frame still has the object of the first, which the walk must not see and the script's own must. */
TEST_F(HelperStack, LeavesEveryFrameTheObjectOfItsLastCall)
{
	size_t past = 0;
	at_probe([&](zend_execute_data *) {
		const auto objects = [&] {
			std::vector<const zval *> found;
			past = 0;
			for (const zend_execute_data *at = EG(current_execute_data); at; at = at->prev_execute_data) {
				found.push_back(at->object);
				past += at->object && at->op_array && at->function_state.function == (const zend_function *)at->op_array;
			}
			return found;
		};
		const auto before = objects();
		taken(zq_code_stack_text(TSRMLS_C));
		EXPECT_EQ(objects(), before);
	});
	run("class A { function m() { } } function go() { $a = new A; $a->m(); return $none; }"
	    "set_error_handler(function () { probe(); }); go();");
	EXPECT_GT(past, 0u) << "there was one";
}
