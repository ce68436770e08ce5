#include "engine_fixture.h"
#include "zqp_action.h"
#include "zqp_component.h"

class Component : public EngineTest {
protected:
	zend_llist_element *open() { return zq_component_open(TSRMLS_C); }
	void close(zend_llist_element *element, const char *func, int ms, const char *cls = nullptr)
	{
		zq_component_close(element, ZQG(component_generation), cls, func, ms TSRMLS_CC);
	}
	/* "metric-exclusive", or "none" */
	std::string sums(const std::string &name)
	{
		auto *sums = (component_hash_element *)FIND_HASH_PVALUE(ZQG(components_hash), name.c_str(), name.size() + 1);
		return sums ? std::to_string(sums->metric) + "-" + std::to_string(sums->exclusive) : "none";
	}
};

TEST_F(Component, ChargesNestedTimeToTheComponentAroundAndLeavesThoseThatAreNotInnermost)
{
	zend_llist_element *outer = open(), *inner = open();
	zq_component_spent_outside(3 TSRMLS_CC);
	close(inner, "pay", 10);
	close(open(), "pay", 5);
	close(open(), "quick", 0);
	zq_component_spent_outside(4 TSRMLS_CC);
	close(outer, "say \"hi\"\n\x01", 20, "A\\B");
	outer = open();
	open(); /* left by exit */
	close(outer, "outer", 9);
	EXPECT_EQ(zend_llist_count(ZQG(components)), 2);
	EXPECT_EQ(sums("PHP/NULL/pay") + " " + sums("PHP/A\\\\B/say \\\"hi\\\"\\n ") + " " + sums("PHP/NULL/outer"), "15-3 20-19 none");
	EXPECT_EQ(zend_hash_num_elements(ZQG(components_hash)), 2u);
}

TEST_F(Component, DoesNotTakeANewElementForOneOfAnEmptiedList)
{
	open();
	unsigned generation = ZQG(component_generation);
	zq_empty_containers(TSRMLS_C);
	zend_llist_element *reused = open();
	zq_component_close(reused, generation, nullptr, "after", 5 TSRMLS_CC); /* as if the address were that of "before" */
	EXPECT_EQ(sums("PHP/NULL/after"), "none");
	close(reused, "after", 5);
	EXPECT_EQ(sums("PHP/NULL/after"), "5-0");
}
