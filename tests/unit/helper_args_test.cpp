#include "engine_fixture.h"

class HelperArgs : public EngineTest {};

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
