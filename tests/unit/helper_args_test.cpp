#include "engine_fixture.h"

class HelperArgs : public EngineTest {};

TEST_F(HelperArgs, ReadsArgumentsByTypeAndPosition)
{
	at_probe([](zend_execute_data *frame) {
		EXPECT_EQ(get_arguments_count(frame), 4);
		EXPECT_STREQ(get_argument_char(frame, 0), "first");
		EXPECT_EQ(get_argument_long(frame, 1), 7);
		EXPECT_STREQ(get_reverse_argument_char(frame, 3), "first");
		EXPECT_EQ(get_argument_long(frame, 0), 0);
		EXPECT_EQ(get_argument_char(frame, 1), nullptr);
		for (int absent : {-1, 4, 5, 1 << 30}) {
			EXPECT_EQ(get_argument_zval(frame, absent), nullptr);
			EXPECT_EQ(get_reverse_argument_char(frame, absent), nullptr);
		}
	});
	run("probe('first', 7, 2.5, 'last');");
	zend_execute_data bare = {};
	EXPECT_EQ(get_argument_zval(&bare, 0), nullptr);
}

TEST_F(HelperArgs, NamesCallablesListsArgumentsAndSpellsServerVariables)
{
	run("class C {}");
	std::string text;
	at_probe([&](zend_execute_data *frame) {
		text = taken(get_argument_callback(frame, 0 TSRMLS_CC)) + "; " + taken(get_arguments(frame TSRMLS_CC));
	});
	const auto read = [&](const std::string &arguments) { return run("probe(" + arguments + ");"), text; };
	expect_made(read, {
		{"'strlen'", "strlen; \"strlen\""}, {"array(new C, 'm')", "C::m; (null)"}, {"array(1, 'f'), 3, new C", "::f; ,3,"},
		{"array('C', null, 'm')", "C::::m; (null)"}, {"array(5)", "; (null)"}, {"array()", "(null); (null)"},
		{"function () {}", "(null); (null)"}, {"5, 'a\"b', null, true", "(null); 5,\"a\\\"b\",null,true"}, {"", "(null); (null)"},
	});
	EXPECT_EQ(taken(get_server_key(("\xc3" + std::string(300, 'a')).c_str())), "HTTP__" + std::string(121, 'A'));
}
