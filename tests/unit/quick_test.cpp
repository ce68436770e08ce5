/* Which calls go without a clock: seen by a hook around the agent's own, which also compares what the calls return. */
#include "engine_fixture.h"
#include "php_zqprof.h"
#include "zqp_quick.h"

namespace {

int seen = -1; /* of the call before probe(): 1 quick, 0 timed */

void look(zend_execute_data *frame, zend_fcall_info *fci, int used TSRMLS_DC)
{
	const zend_function *function = frame->function_state.function;
	if (strcmp(function->common.function_name, "probe") != 0) {
		const zq_quick_slot *slot = zq_quick_slot_of(frame);
		seen = slot && (zq_quick_argument(slot, frame) || zq_quick_arguments(slot, frame));
	}
	zq_execute_internal(frame, fci, used TSRMLS_CC);
}

class Quick : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		run("class Has implements Countable { function count() { return 7; } function __toString() { return 'text'; } }"
		    "function given() { return func_get_args(); } $long = str_repeat('a', 1025); $GLOBALS['long'] = $long;");
		zend_execute_internal = look;
	}
	void TearDown() override
	{
		zend_execute_internal = zq_execute_internal;
		EngineTest::TearDown();
	}
	int quick(const std::string &call)
	{
		seen = -1;
		run("@" + call + ";");
		return seen;
	}
};

} // namespace

TEST_F(Quick, AreCallsThatNoDataCanSlowDown)
{
	for (const char *call : {"strlen('a')", "strlen(12)", "count(array(1, 2))", "sizeof(array())", "is_array(new Has)", "is_long(1)",
	         "given(1)", "time()", "microtime(true)", "defined('PHP_OS')", "strpos('abc', 'b')", "substr('abc', 1)", "md5('a')",
	         "array_key_exists('a', array('a' => 1))", "method_exists(new Has, 'count')"}) {
		EXPECT_EQ(quick(call), 1) << call;
	}
	for (const char *call : {"strlen(new Has)", "count(new Has)", "count(array(1), 1)", "strlen()", "strlen('a', 'b')", "strlen(array())",
	         "strpos('abc', '')", "strpos('abc', 'b', 5)", "md5($GLOBALS['long'])", "strpos('a', $GLOBALS['long'])", "defined('Has::A')",
	         "func_get_args()", "array_key_exists(1.5, array())", "method_exists('Has', 'count')", "usleep(0)", "is_callable('a')",
	         "explode('', 'a')", "abs('a')", "round(new Has)"}) {
		EXPECT_EQ(quick(call), 0) << call;
	}
}

TEST_F(Quick, ReturnWhatTheyAlwaysDo)
{
	EXPECT_EQ(run("$n = 0; foreach (array('is_int', 'strlen', 'ord') as $f) { echo $f('7'), call_user_func($f, '7'), array_sum(array_map($f, array('7'))), ' '; }"
	              "strlen('unused'); $a = array(1, 2); next($a); echo current($a), end($a), key($a), count($a), ' ', implode(given(1, 2)), ' ',"
	              "trim(' x '), abs(-3), ' ', var_export(is_null(null), true);"),
	    "0 111 555555 2212 12 x3 true");
}

TEST_F(Quick, AreNoneWhileAProfileRuns)
{
	zq_quick_wait_for_profile(100, 90);
	EXPECT_EQ(quick("strlen('a')"), 0);
	zq_quick_wait_for_profile(0, 100);
	EXPECT_EQ(quick("strlen('a')"), 0) << "another thread's action begins";
	zq_quick_wait_for_profile(0, 101);
	EXPECT_EQ(quick("strlen('a')"), 1);
}

TEST_F(Quick, AreNotThoseThatSomebodyReplaced)
{
	zend_function *function = nullptr;
	ASSERT_EQ(zend_hash_find(EG(function_table), "strlen", sizeof("strlen"), (void **)&function), SUCCESS);
	zq_handler before = function->internal_function.handler;
	function->internal_function.handler = [](INTERNAL_FUNCTION_PARAMETERS) {
		(void)ht, (void)return_value_ptr, (void)this_ptr, (void)return_value_used;
		RETVAL_LONG(99);
		(void)tsrm_ls;
	};
	EXPECT_EQ(run("echo strlen('a');"), "99");
	EXPECT_EQ(quick("strlen('a')"), 0);
	function->internal_function.handler = before;
}
