#include "engine_fixture.h"

extern "C" {
#include "ext/standard/basic_functions.h"
}

class HelperCall : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		ZQG(hook_enabled) = 1;
	}
	void TearDown() override
	{
		ZQG(hook_enabled) = 0;
		EngineTest::TearDown();
	}

	/* Calls `function` and keeps what it returned. */
	int call(const char *function, std::vector<zval *> params = {}, zval *object = nullptr)
	{
		zval *name;
		MAKE_STD_ZVAL(name);
		ZVAL_STRING(name, function, 1);
		zval result;
		int outcome = zq_call_user_function(EG(function_table), object ? &object : nullptr, name, &result,
		                                    params.size(), params.data() TSRMLS_CC);
		result_type = Z_TYPE(result);
		convert_to_string(&result);
		result_text = std::string(Z_STRVAL(result), Z_STRLEN(result));
		zval_dtor(&result);
		zval_ptr_dtor(&name);
		return outcome;
	}
	int result_type = -1;
	std::string result_text;
};

TEST_F(HelperCall, ReturnsTheResultAndPutsTheSwitchBackToWhatItWas)
{
	run("class T { private $v = 'own'; static function s() { return 'static'; } function m($a) { return $this->v . $a; } }"
	    "function see() { probe(); return 1; }");
	EXPECT_EQ(call("strtoupper", {value("'abc'")}), SUCCESS);
	EXPECT_EQ(result_text, "ABC");
	EXPECT_EQ(call("T::s"), SUCCESS);
	EXPECT_EQ(result_text, "static");
	EXPECT_EQ(call("m", {value("'+'")}, value("new T")), SUCCESS);
	EXPECT_EQ(result_text, "own+");
	for (int before : {1, 0}) {
		int during = -1, nested = -1;
		at_probe([&](zend_execute_data *) { during = ZQG(hook_enabled), nested = ZQG(in_agent_call); });
		ZQG(hook_enabled) = before;
		EXPECT_EQ(call("see"), SUCCESS);
		EXPECT_EQ(during, 0);
		EXPECT_EQ(nested, 1);
		EXPECT_EQ(ZQG(hook_enabled), before);
		EXPECT_EQ(ZQG(in_agent_call), 0);
	}
}

TEST_F(HelperCall, HidesAConstructorsErrorMode)
{
	/* constructors of the engine's own classes turn warnings into exceptions while they run */
	zend_error_handling_t during = EH_SUPPRESS;
	run("function see() { probe(); }");
	at_probe([&](zend_execute_data *) { during = EG(error_handling); });
	EG(error_handling) = EH_THROW;
	EXPECT_EQ(call("see"), SUCCESS);
	EXPECT_EQ(during, EH_NORMAL);
	EXPECT_EQ(EG(error_handling), EH_THROW);
	EG(error_handling) = EH_NORMAL;
}

TEST_F(HelperCall, SaysNothingAboutWhatCannotBeCalled)
{
	run("class T { private function p() {} }");
	at_probe([&](zend_execute_data *) {
		for (const char *function : {"nope", "Nope::m", "T::nope", "T::p", "", "::"}) {
			EXPECT_EQ(call(function), FAILURE) << function;
			EXPECT_EQ(result_type, IS_NULL) << function;
		}
		EXPECT_EQ(call("nope", {}, value("new T")), FAILURE);
		EXPECT_EQ(call("max", std::vector<zval *>(9, value("1"))), FAILURE);
	});
	EXPECT_EQ(run("probe(); var_dump(error_get_last());"), "NULL\n");
}

TEST_F(HelperCall, KeepsAPendingExceptionForTheScript)
{
	run("function callee() { try { throw new LogicException('inner'); } catch (Exception $e) {} return 'done'; }");
	zval *padded = value("' x '");
	at_probe([&, padded](zend_execute_data *) {
		zend_throw_exception(zend_exception_get_default(TSRMLS_C), (char *)"pending", 0 TSRMLS_CC);
		zval *pending = EG(exception);
		EXPECT_EQ(call("callee"), SUCCESS);
		EXPECT_EQ(result_text, "done");
		EXPECT_EQ(call("trim", {padded}), SUCCESS);
		EXPECT_EQ(result_text, "x");
		EXPECT_EQ(EG(exception), pending);
	});
	EXPECT_EQ(run("try { echo 1; } catch (Exception $e) { echo 'wrong'; }\n"
	              "try {\nprobe();\necho 'not reached';\n} catch (Exception $e) {"
	              " echo '+', $e->getMessage(), $e->getLine(), var_export($e->getPrevious(), true); }\n"
	              "try { echo '-'; } catch (Exception $e) { echo 'wrong'; }"),
	          "1+pending3NULL-");
}

TEST_F(HelperCall, SwallowsWhatTheCalleeThrows)
{
	run("class Late extends Exception { function __destruct() { throw new Exception('late'); } }"
	    "function callee($class) { throw new $class('early'); }");
	at_probe([&](zend_execute_data *) {
		for (const char *thrown : {"'Exception'", "'Late'"}) {
			EXPECT_EQ(call("callee", {value(thrown)}), FAILURE);
			EXPECT_EQ(result_type, IS_NULL);
			EXPECT_EQ(EG(exception), nullptr);
		}
	});
	EXPECT_EQ(run("function f() { try { probe(1, 2); return 'went on'; } catch (Exception $e) { return 'caught'; } } echo f();"),
	          "went on");
}

TEST_F(HelperCall, KeepsTheScriptsErrorHandlers)
{
	run("function callee() { restore_error_handler(); set_error_handler(function () { echo 'callee'; return true; });"
	    " set_error_handler('strlen'); return 1; }"
	    "set_error_handler(function ($n, $m) { echo 'outer ', $m, ';'; return true; });"
	    "set_error_handler(function ($n, $m) { echo 'inner ', $m, ';'; return true; }, E_USER_NOTICE);");
	at_probe([&](zend_execute_data *) { EXPECT_EQ(call("callee"), SUCCESS); });
	EXPECT_EQ(run("probe(); trigger_error('a'); restore_error_handler(); trigger_error('b', E_USER_WARNING);"),
	          "inner a;outer b;");
	/* while a handler runs the engine has none in use, only stacked ones */
	run("set_error_handler(function () { restore_error_handler(); probe(); echo 'handled;'; return true; });");
	EXPECT_EQ(run("trigger_error('x'); trigger_error('y');"), "handled;outer y;");
}

TEST_F(HelperCall, KeepsTheScriptsVariables)
{
	at_probe([&](zend_execute_data *) {
		EXPECT_EQ(call("extract", {value("array('mine' => 'changed', 'leaked' => 1)")}), SUCCESS);
	});
	const char *check = "$mine = 'kept'; probe(); echo $mine, isset($leaked) ? 'leaked' : '';";
	EXPECT_EQ(run(check), "kept");
	EXPECT_EQ(run(std::string("function f() { ") + check + " } f();"), "kept");
}

TEST_F(HelperCall, RaisesTheCalleesExitAgainWithEverythingPutBack)
{
	run("function leave() { set_error_handler('strlen'); exit('left '); }"
	    "function last() { echo 'shutdown '; probe('state'); trigger_error('still handled'); }"
	    "register_shutdown_function('last'); set_error_handler(function ($n, $m) { echo $m; return true; });");
	volatile bool came_back = false;
	at_probe([&](zend_execute_data *) {
		ZQG(hook_enabled) = 1;
		call("leave");
		came_back = true;
	});
	EXPECT_EQ(run("probe(); echo 'not reached';"), "left ");
	EXPECT_TRUE(bailed_out);
	EXPECT_FALSE(came_back);
	EXPECT_EQ(ZQG(hook_enabled), 1);
	EXPECT_EQ(ZQG(in_agent_call), 0);
	at_probe([&](zend_execute_data *frame) { EXPECT_STREQ(get_argument_char(frame, 0), "state"); });
	EXPECT_EQ(end_request(), "shutdown still handled");
}

TEST_F(HelperCall, LetsTheCalleeKeepItsArguments)
{
	run("function later($text) { echo $text; }");
	EXPECT_EQ(call("register_shutdown_function", {value("'later'"), value("'kept ' . 'text'")}), SUCCESS);
	EXPECT_EQ(end_request(), "kept text");
}

TEST_F(HelperCall, RegistersTheCallbacksThatTheRequestNeeds)
{
	const struct { int parent, rum, at_shutdown, at_headers; } cases[] = {
		{0, 0, 0, 0}, {0, 1, 1, 0}, {1, 0, 1, 1}, {1, 1, 1, 1},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(::testing::Message() << c.parent << c.rum);
		end_request();
		EngineTest::SetUp();
		ZQG(transaction_parent) = c.parent;
		ZQG(rum_enabled) = c.rum;
		register_transaction_callback(TSRMLS_C);
		EXPECT_EQ(BG(user_shutdown_function_names) ? zend_hash_num_elements(BG(user_shutdown_function_names)) : 0,
		          c.at_shutdown);
		zval *callback = SG(callback_func);
		ASSERT_EQ(callback != nullptr, c.at_headers);
		EXPECT_STREQ(callback ? Z_STRVAL_P(callback) : "zqprof_headercall", "zqprof_headercall");
		ZQG(transaction_parent) = ZQG(rum_enabled) = 0;
	}
}
