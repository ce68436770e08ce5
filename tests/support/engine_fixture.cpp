#include "zqp_action.h"
#include "engine_fixture.h"

#include <filesystem>
#include <utility>

extern "C" {
#include "sapi/embed/php_embed.h"
/* what the engine asks a shared object for */
zend_module_entry *get_module(void);
}

namespace {

std::string printed;
std::string runtime_folder;
std::string settings;
std::function<void(zend_execute_data *)> probe_action;

int capture_output(const char *text, unsigned int len TSRMLS_DC)
{
	printed.append(text, len);
	return (int)len;
}

void probe_function(INTERNAL_FUNCTION_PARAMETERS)
{
	(void)ht, (void)return_value, (void)return_value_ptr, (void)this_ptr, (void)return_value_used;
	if (probe_action) {
		probe_action(EG(current_execute_data));
	}
}

const zend_function_entry test_functions[] = {
	{"probe", probe_function, nullptr, 0, 0},
	{nullptr, nullptr, nullptr, 0, 0},
};

class Engine : public ::testing::Environment {
	void SetUp() override
	{
		std::string pattern = (std::filesystem::temp_directory_path() / "unit.XXXXXX").string();
		ASSERT_NE(mkdtemp(pattern.data()), nullptr);
		runtime_folder = pattern;
		std::filesystem::create_directories(runtime_folder + "/log/quorbit");
		settings = "zqs.runtime_root=" + runtime_folder + "\nzqs.prefix=" + runtime_folder +
		           "\nzqs.agent_enabled=0\nerror_reporting=-1\ndisplay_errors=1\nhtml_errors=0\ndate.timezone=UTC\n";

		tsrm_startup(1, 1, 0, nullptr);
		void ***tsrm_ls = (void ***)ts_resource(0);
		php_embed_module.ub_write = capture_output;
		php_embed_module.flush = nullptr;
		php_embed_module.php_ini_ignore = 1; /* what this machine's configuration says is not under test */
		php_embed_module.additional_functions = test_functions;
		sapi_startup(&php_embed_module); /* forgets ini_entries */
		php_embed_module.ini_entries = settings.data();
		ASSERT_EQ(php_module_startup(&php_embed_module, get_module(), 1), SUCCESS);
		SG(options) |= SAPI_OPTION_NO_CHDIR;
		g_cli = 1; /* no web request stands behind those of the tests */
	}

	void TearDown() override
	{
		TSRMLS_FETCH();
		php_module_shutdown(TSRMLS_C);
		sapi_shutdown();
		tsrm_shutdown();
		std::filesystem::remove_all(runtime_folder);
	}
};

const ::testing::Environment *const engine = ::testing::AddGlobalTestEnvironment(new Engine);

} // namespace

void EngineTest::SetUp()
{
	tsrm_ls = (void ***)ts_resource(0);
	printed.clear();
	ASSERT_EQ(php_request_startup(TSRMLS_C), SUCCESS);
	request_open_ = true;
	zq_create_containers(TSRMLS_C);
	PG(during_request_startup) = 0; /* as the engine does when it begins a script: errors are displayed from here on */
}

void EngineTest::TearDown()
{
	end_request();
}

std::string EngineTest::end_request()
{
	printed.clear();
	if (request_open_) {
		request_open_ = false;
		ZQG(hook_enabled) = ZQG(agent_enabled) = 0;
		for (zval *val : values_) {
			zval_ptr_dtor(&val);
		}
		values_.clear();
		php_request_shutdown(nullptr);
		probe_action = nullptr;
	}
	return std::exchange(printed, {});
}

/* 1 when the statements ran to their end. A frame of its own: what setjmp's holds in registers is lost on a bailout. */
static int evaluate(const char *statements TSRMLS_DC)
{
	volatile int at_end = 0;
	zend_try {
		zend_eval_string_ex(const_cast<char *>(statements), nullptr, const_cast<char *>("test"), 1 TSRMLS_CC);
		at_end = 1;
	} zend_end_try();
	return at_end;
}

std::string EngineTest::run(const std::string &statements)
{
	printed.clear();
	bailed_out = !evaluate(statements.c_str() TSRMLS_CC);
	return std::exchange(printed, {});
}

zval *EngineTest::value(const std::string &expression)
{
	zval *result;
	MAKE_STD_ZVAL(result);
	ZVAL_NULL(result);
	values_.push_back(result);
	EXPECT_EQ(zend_eval_string_ex(const_cast<char *>(expression.c_str()), result, const_cast<char *>("test"), 1 TSRMLS_CC),
	          SUCCESS)
		<< expression;
	return result;
}

void EngineTest::at_probe(std::function<void(zend_execute_data *)> action)
{
	probe_action = std::move(action);
}

void EngineTest::expect_made(const std::function<std::string(const std::string &)> &make,
                             std::initializer_list<std::pair<std::string, std::string>> pairs)
{
	for (const auto &[text, made] : pairs) {
		EXPECT_EQ(make(text), made) << text.substr(0, 200);
	}
}

std::string EngineTest::taken(char *text)
{
	if (!text) {
		return "(null)";
	}
	std::string copy = text;
	efree(text);
	return copy;
}

std::string EngineTest::taken(smart_str &buf)
{
	std::string copy(buf.c ? buf.c : "", buf.len);
	zq_buffer_free(&buf);
	return copy;
}

const std::string &EngineTest::runtime_root()
{
	return runtime_folder;
}
