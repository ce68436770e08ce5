/* A call of PHP code that the script must not notice: every test compares what the script sees with what it would see
 * without the call. */
#include "engine_fixture.h"

class HelperCall : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(hook_enabled) = 1;
	}
	/* Calls `function` and gives what it returned as text; "failed" after a failure, which must leave null. */
	std::string call(const char *function, std::vector<zval *> params = {}, zval *object = nullptr)
	{
		zval result;
		if (zq_call_named(object, function, &result, params.size(), params.data() TSRMLS_CC) == FAILURE) {
			EXPECT_EQ(Z_TYPE(result), IS_NULL) << function;
			return "failed";
		}
		convert_to_string(&result);
		std::string text(Z_STRVAL(result), Z_STRLEN(result));
		zval_dtor(&result);
		return text;
	}
};

TEST_F(HelperCall, ReturnsTheResultAndPutsTheSwitchesBackToWhatTheyWere)
{
	run("class T { private $v = 'own'; static function s() { return 'static'; } function m($a) { return $this->v . $a; } }"
	    "function see() { probe(); return 1; }");
	EXPECT_EQ(call("strtoupper", {value("'abc'")}), "ABC");
	EXPECT_EQ(call("T::s"), "static");
	EXPECT_EQ(call("m", {value("'+'")}, value("new T")), "own+");
	EG(error_handling) = EH_THROW; /* constructors of the engine's own classes turn warnings into exceptions */
	for (int before : {1, 0}) {
		int during = -1;
		at_probe([&](zend_execute_data *) { during = ZQG(hook_enabled) * 100 + ZQG(in_agent_call) * 10 + EG(error_handling); });
		ZQG(hook_enabled) = before;
		EXPECT_EQ(call("see"), "1");
		EXPECT_EQ(during, before * 100 + 10 + EH_NORMAL);
		EXPECT_EQ(ZQG(hook_enabled) * 100 + ZQG(in_agent_call) * 10 + EG(error_handling), before * 100 + EH_THROW);
	}
	EG(error_handling) = EH_NORMAL;
}

TEST_F(HelperCall, KeepsAPendingExceptionForTheScriptAndNoneOfTheCallees)
{
	run("function callee() { try { throw new LogicException('inner'); } catch (Exception $e) {} return 'done'; }"
	    "class Late extends Exception { function __destruct() { throw new Exception('late'); } }"
	    "function thrower($class) { throw new $class('early'); }");
	at_probe([&](zend_execute_data *frame) {
		for (const char *thrown : {"'Exception'", "'Late'"}) {
			EXPECT_EQ(call("thrower", {value(thrown)}), "failed");
			EXPECT_EQ(EG(exception), nullptr);
		}
		zend_throw_exception(zend_exception_get_default(TSRMLS_C), (char *)"pending", 0 TSRMLS_CC);
		zval *pending = EG(exception);
		EXPECT_EQ(zq_calling_line(frame, nullptr TSRMLS_CC), 3);
		EXPECT_EQ(call("callee"), "done");
		EXPECT_EQ(EG(exception), pending);
	});
	EXPECT_EQ(run("try { echo 1; } catch (Exception $e) { echo 'wrong'; }\n"
	              "try {\nprobe();\necho 'not reached';\n} catch (Exception $e) {"
	              " echo '+', $e->getMessage(), $e->getLine(), var_export($e->getPrevious(), true); }\n"
	              "try { echo '-'; } catch (Exception $e) { echo 'wrong'; }"),
	          "1+pending3NULL-");
}

TEST_F(HelperCall, RunsNoTickFunctionOfTheScriptAndCountsNoTick)
{
	run("function callee() { declare(ticks=1) { $a = 1; $b = 2; } return 'done'; } register_tick_function(function () { echo '.'; });");
	const char *const ticking = "declare(ticks=3); echo 'a'; probe(); echo 'b'; echo 'c'; echo 'd';";
	const std::string undisturbed = run(ticking);
	EXPECT_NE(undisturbed.find('.'), std::string::npos);
	at_probe([&](zend_execute_data *) { EXPECT_EQ(call("callee"), "done"); });
	EXPECT_EQ(run(ticking), undisturbed);
}

TEST_F(HelperCall, KeepsTheScriptsErrorHandlersAndVariables)
{
	run("function callee() { restore_error_handler(); set_error_handler(function () { echo 'callee'; return true; });"
	    " set_error_handler('strlen'); return 1; }"
	    "set_error_handler(function ($n, $m) { echo 'outer ', $m, ';'; return true; });"
	    "set_error_handler(function ($n, $m) { echo 'inner ', $m, ';'; return true; }, E_USER_NOTICE);");
	at_probe([&](zend_execute_data *) {
		EXPECT_EQ(call("callee"), "1");
		EXPECT_EQ(call("extract", {value("array('mine' => 'changed', 'leaked' => 1)")}), "2");
	});
	EXPECT_EQ(run("probe(); trigger_error('a'); restore_error_handler(); trigger_error('b', E_USER_WARNING);"),
	          "inner a;outer b;");
	/* while a handler runs the engine has none in use, only stacked ones */
	run("set_error_handler(function () { restore_error_handler(); probe(); echo 'handled;'; return true; });");
	EXPECT_EQ(run("trigger_error('x'); trigger_error('y');"), "handled;outer y;");

	const std::string check = "$mine = 'kept'; probe(); echo $mine, isset($leaked) ? 'leaked' : '';";
	EXPECT_EQ(run(check + " function f() { " + check + " } f();"), "keptkept");
}

TEST_F(HelperCall, RaisesTheCalleesExitAgainWithEverythingPutBack)
{
	run("function leave() { set_error_handler('strlen'); exit('left '); }"
	    "function last() { echo 'shutdown '; trigger_error('still handled'); }"
	    "set_error_handler(function ($n, $m) { echo $m; return true; });");
	EXPECT_EQ(call("register_shutdown_function", {value("'last'")}), ""); /* keeps its argument */
	at_probe([&](zend_execute_data *) { call("leave"); });
	EXPECT_EQ(run("probe(); echo 'not reached';"), "left ");
	EXPECT_TRUE(bailed_out);
	EXPECT_EQ(ZQG(hook_enabled), 1);
	EXPECT_EQ(ZQG(in_agent_call), 0);
	EXPECT_EQ(end_request(), "shutdown still handled");
}
