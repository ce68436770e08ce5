#include "engine_fixture.h"
#include "zqp_component.h"

class Component : public EngineTest {
protected:
	zend_llist_element *open(const char *func) { return zq_component_open(nullptr, func TSRMLS_CC); }
	void close(zend_llist_element *element, int ms) { zq_component_close(element, ZQG(component_generation), ms TSRMLS_CC); }
	/* "metric-exclusive", or "none" */
	std::string sums(const std::string &name)
	{
		auto *sums = (component_hash_element *)FIND_HASH_PVALUE(ZQG(components_hash), name.c_str(), name.size() + 1);
		return sums ? std::to_string(sums->metric) + "-" + std::to_string(sums->exclusive) : "none";
	}
};

TEST_F(Component, ChargesNestedTimeToTheComponentAroundAndLeavesThoseThatAreNotInnermost)
{
	zend_llist_element *outer = zq_component_open("A\\B", "say \"hi\"\n\x01" TSRMLS_CC);
	zend_llist_element *inner = open("pay");
	zq_component_spent_outside(3 TSRMLS_CC);
	close(inner, 10);
	close(open("pay"), 5);
	close(open("quick"), 0);
	zq_component_spent_outside(4 TSRMLS_CC);
	close(outer, 20);
	outer = open("outer");
	open("left by exit");
	close(outer, 9);
	EXPECT_EQ(zend_llist_count(ZQG(components)), 2);
	EXPECT_EQ(sums("PHP/NULL/pay") + " " + sums("PHP/A\\\\B/say \\\"hi\\\"\\n ") + " " + sums("PHP/NULL/outer"), "15-3 20-19 none");
	EXPECT_EQ(zend_hash_num_elements(ZQG(components_hash)), 2u);
}

TEST_F(Component, DoesNotTakeANewElementForOneOfAnEmptiedList)
{
	open("before");
	unsigned generation = ZQG(component_generation);
	zq_empty_containers(TSRMLS_C);
	zend_llist_element *reused = open("after");
	zq_component_close(reused, generation, 5 TSRMLS_CC); /* as if the address were that of "before" */
	EXPECT_EQ(sums("PHP/NULL/after"), "none");
	close(reused, 5);
	EXPECT_EQ(sums("PHP/NULL/after"), "5-0");
}
