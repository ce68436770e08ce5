/* How watched names are told from the many others: the filter in front of the tables of user functions, and the tables of
 * internal ones. */
#include <array>

#include "engine_fixture.h"

#include "zqp_name_table.h"
#include "zqp_wrapper.h"

class Wrapper : public EngineTest {};

static int note(zend_execute_data *, char * TSRMLS_DC) { return 0; }

TEST_F(Wrapper, FilterPassesEveryWatchedNameAndFewOthers)
{
	const std::pair<const char *, std::string> names[] = {
		{nullptr, "f"}, {nullptr, "wp_head"}, {"A", "b"}, {"Cart", "total"}, {"yii\\base\\Module", "runAction"}, {nullptr, ""}, {"A", ""},
	};
	for (const auto &[cls, func] : names) {
		const std::string full = cls ? cls + ("::" + func) : func;
		const auto passes = [&] { return zq_may_be_watched(zq_globals(TSRMLS_C), cls, cls ? (int)strlen(cls) : 0, func.c_str()); };
		memset(ZQG(watch_filter), 0, sizeof ZQG(watch_filter));
		EXPECT_EQ(0, passes()) << full;
		zq_watch_before(full.c_str(), full.size() + 1, note TSRMLS_CC);
		EXPECT_EQ(1, passes()) << full;
		EXPECT_EQ(note, zq_find_before(full.c_str(), full.size() + 1 TSRMLS_CC));
	}
	zq_init_funtion_hash(TSRMLS_C);
	int passed = 0, asked = 0;
	for (char first = 'a'; first <= 'z'; first++) {
		for (size_t length = 1; length < 40; length++, asked++) {
			std::string func = first + std::string(length, (char)('a' + (first + length) % 26));
			passed += zq_may_be_watched(zq_globals(TSRMLS_C), nullptr, 0, func.c_str());
		}
	}
	EXPECT_LT(passed * 20, asked) << "one in twenty";
}

static std::string callee;

static int look(zq_stack_data *stack, uint64, uint64 TSRMLS_DC)
{
	const zend_function *function = stack->execute_data->function_state.function;
	callee = std::to_string(function->type) + " " + function->common.scope->name + " " + function->common.function_name;
	return 1;
}

TEST_F(Wrapper, LooksAtACopyOfAClosureThatMayBeFreed)
{
	ZQG(agent_enabled) = ZQG(hook_enabled) = 1;
	zq_watch_after("C::{closure}", sizeof "C::{closure}", look TSRMLS_CC);
	run("class C { function m() { $f = function () {}; $f(); } } $c = new C; $c->m();");
	EXPECT_EQ(callee, std::to_string(ZEND_INTERNAL_FUNCTION) + " C {closure}");
}

struct numbered_row {
	zq_name name;
	int number;
};
constexpr auto numbered_rows = std::to_array<numbered_row>({
	{"a", 0}, {"b", 1}, {"ab", 2}, {"curl_exec", 3}, {"curl_init", 4}, {"PDO", 5}, {"MongoDB\\Driver\\Manager", 6}, {"", 7}, {"\xFF\xFE", 8},
});
constexpr auto numbered_index = zq_index_names(numbered_rows);

TEST(NameTable, FindsEveryRowAndNothingElse)
{
	const auto find = [](uint64 hash, const std::string &name) {
		return zq_find_row(numbered_rows, numbered_index, hash, name.data(), (int)name.size());
	};
	for (const numbered_row &row : numbered_rows) {
		std::string name(row.name.text, (size_t)row.name.length);
		EXPECT_EQ(&row, find(zq_name_hash(name.data(), name.size()), name)) << name;
		EXPECT_EQ(nullptr, find(zq_name_hash((name + "x").data(), name.size() + 1), name + "x")) << name;
	}
	/* a colliding hash alone is no match */
	EXPECT_EQ(nullptr, find(zq_name_hash("curl_exec"), "curl_exex"));
	EXPECT_EQ(nullptr, find(zq_name_hash("curl_exec"), "curl_exec2"));
}
