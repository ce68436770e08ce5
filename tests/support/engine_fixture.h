/* A PHP engine inside the test process, with the extension registered as one of its own modules: started before the
 * first test, one real request per test. No daemon answers, and the agent is switched off by setting, so that a test
 * meets zeroed state and empty lists, and switches on what it needs until the request ends. */
#ifndef ENGINE_FIXTURE_H
#define ENGINE_FIXTURE_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "zqp_helper.h"

class EngineTest : public ::testing::Test {
protected:
	void SetUp() override;    /* begins a request */
	void TearDown() override; /* ends it, shutdown functions included, unless the test did */

	/* The thread context under the name that TSRMLS_C and the engine's macros expect. */
	void ***tsrm_ls = nullptr;

	/* Runs statements as the file "test"; what they and what they called has printed. `bailed_out` tells whether they
	 * ended by exit or a fatal error. */
	std::string run(const std::string &statements);
	bool bailed_out = false;
	/* Value of an expression, released when the test ends. */
	zval *value(const std::string &expression);
	/* Ends the request now; what its shutdown functions printed. */
	std::string end_request();

	/* The PHP function probe() calls this with the frame that called it. */
	static void at_probe(std::function<void(zend_execute_data *)> action);

	/* Expects `make` to make the second text of each pair's first. */
	static void expect_made(const std::function<std::string(const std::string &)> &make,
	                        std::initializer_list<std::pair<std::string, std::string>> pairs);

	/* A request string or a buffer as text, released; "(null)" for a null pointer. */
	static std::string taken(char *text);
	static std::string taken(smart_str &buf);

	/* The folder below which the agent keeps its files in this process. */
	static const std::string &runtime_root();

private:
	bool request_open_ = false;
	std::vector<zval *> values_;
};

#endif
