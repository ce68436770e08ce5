#include "engine_fixture.h"

extern "C" {
#include "ext/standard/file.h"
}

class HelperArgs : public EngineTest {};

TEST_F(HelperArgs, ReadsArgumentsByTypeAndPosition)
{
	probe("'first', 7, 2.5, 'last'", [&](zend_execute_data *frame) {
		EXPECT_EQ(get_arguments_count(frame), 4);
		EXPECT_STREQ(get_argument_char(frame, 0), "first");
		EXPECT_EQ(get_argument_long(frame, 1), 7);
		EXPECT_DOUBLE_EQ(Z_DVAL_P(get_argument_zval(frame, 2)), 2.5);
		EXPECT_STREQ(get_reverse_argument_char(frame, 0), "last");
		EXPECT_STREQ(get_reverse_argument_char(frame, 3), "first");
		EXPECT_EQ(get_argument_long(frame, 0), 0);
		EXPECT_EQ(get_argument_long(frame, 2), 0);
		EXPECT_EQ(get_argument_char(frame, 1), nullptr);
		EXPECT_EQ(get_reverse_argument_char(frame, 1), nullptr);
		for (int absent : {-1, 4, 5, 1 << 30}) {
			EXPECT_EQ(get_argument_zval(frame, absent), nullptr);
			EXPECT_EQ(get_reverse_argument_char(frame, absent), nullptr);
		}
	});
	probe("", [&](zend_execute_data *frame) {
		EXPECT_EQ(get_arguments_count(frame), 0);
		EXPECT_EQ(get_argument_zval(frame, 0), nullptr);
	});
	zend_execute_data bare = {};
	for (zend_execute_data *frame : {(zend_execute_data *)nullptr, &bare}) {
		EXPECT_EQ(get_arguments_count(frame), 0);
		EXPECT_EQ(get_argument_zval(frame, 0), nullptr);
		EXPECT_EQ(get_reverse_argument_char(frame, 0), nullptr);
		EXPECT_EQ(get_arguments(frame TSRMLS_CC), nullptr);
	}
}

TEST_F(HelperArgs, ReplacesAnArgumentWithoutTouchingTheScriptsVariable)
{
	at_probe([&](zend_execute_data *frame) {
		zval *fresh;
		MAKE_STD_ZVAL(fresh);
		ZVAL_STRING(fresh, "replaced", 1);
		zq_argument_replace(zq_argument_slot(frame, 0), fresh);
		EXPECT_STREQ(get_argument_char(frame, 0), "replaced");
	});
	EXPECT_EQ(run("$v = 'kept'; $r = &$v; probe($v); echo $v, $r; probe('literal');"), "keptkept");
}

TEST_F(HelperArgs, NamesCallables)
{
	run("class C {} function f() {}");
	const struct { const char *argument, *name; } cases[] = {
		{"'strlen'", "strlen"},
		{"array('C', 'm')", "C::m"},
		{"array(new C, 'm')", "C::m"},
		{"array(1, 'f')", "::f"},
		{"array('C', null, 'm')", "C::::m"},
		{"array(5)", ""},
		{"array()", "(null)"},
		{"function () {}", "(null)"},
		{"5", "(null)"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.argument);
		std::string name;
		probe(c.argument, [&](zend_execute_data *frame) { name = taken(get_argument_callback(frame, 0 TSRMLS_CC)); });
		EXPECT_EQ(name, c.name);
	}
}

TEST_F(HelperArgs, ListsArgumentsAsJson)
{
	const struct { const char *arguments, *all, *first; } cases[] = {
		{"1, 'a\"b', null, true", "1,\"a\\\"b\",null,true", "1"},
		{"array('args' => 1, 'k' => 2), 3, new stdClass", ",3,", "{\"k\":2}"},
		{"array(1)", "(null)", "[1]"},
		{"", "(null)", ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.arguments);
		std::string all;
		smart_str first = {};
		probe(c.arguments, [&](zend_execute_data *frame) {
			all = taken(get_arguments(frame TSRMLS_CC));
			get_argument_array(frame, &first, 0 TSRMLS_CC);
		});
		EXPECT_EQ(all, c.all);
		EXPECT_EQ(taken(first), c.first);
	}
}

TEST_F(HelperArgs, LooksUpTablesAndContexts)
{
	zval *array = value("array('X-Id' => 'a', 'x-id' => 'b', 3 => 'c', 'n' => 1)");
	HashTable *table = Z_ARRVAL_P(array);
	EXPECT_STREQ(Z_STRVAL_P(FIND_HASH_ZVALUE(table, "x-id", sizeof("x-id"))), "b");
	EXPECT_EQ(FIND_HASH_ZVALUE(table, "X-ID", sizeof("X-ID")), nullptr);
	EXPECT_EQ(FIND_HASH_ZVALUE(nullptr, "n", sizeof("n")), nullptr);
	EXPECT_STREQ(get_hash_value_by_name(array, "X-ID", sizeof("X-ID")), "a");
	EXPECT_EQ(get_hash_value_by_name(array, "N", sizeof("N")), nullptr);
	EXPECT_EQ(get_hash_value_by_name(array, "X-I", sizeof("X-I")), nullptr);
	EXPECT_EQ(get_hash_value_by_name(value("'X-Id'"), "X-Id", sizeof("X-Id")), nullptr);
	EXPECT_EQ(get_hash_value_by_name(nullptr, "X-Id", sizeof("X-Id")), nullptr);

	zval *resource = value("stream_context_create(array('http' => array('method' => 'PUT'), 'ssl' => array('header' => 'x')))");
	php_stream_context *context = (php_stream_context *)zend_fetch_resource(&resource TSRMLS_CC, -1, nullptr, nullptr, 1,
	                                                                       php_le_stream_context(TSRMLS_C));
	ASSERT_NE(context, nullptr);
	EXPECT_STREQ(Z_STRVAL_P(GET_CONTEXT_HTTP_OPTION(context, "method")), "PUT");
	EXPECT_EQ(GET_CONTEXT_HTTP_OPTION(context, "header"), nullptr);
	EXPECT_EQ(GET_CONTEXT_HTTP_OPTION(nullptr, "method"), nullptr);
}

TEST_F(HelperArgs, SpellsServerVariablesOfHeaders)
{
	EXPECT_EQ(taken(get_server_key("x-Vantor_id 9")), "HTTP_X_VANTOR_ID_9");
	EXPECT_EQ(taken(get_server_key("\xc3\xa9")), "HTTP___");
	EXPECT_EQ(taken(get_server_key("")), "HTTP_");
	EXPECT_EQ(taken(get_server_key(std::string(300, 'a').c_str())), "HTTP_" + std::string(122, 'A'));
	EXPECT_EQ(get_server_key(nullptr), nullptr);
}
