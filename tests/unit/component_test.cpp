#include "engine_fixture.h"
#include "zqp_component.h"
#include "zqp_nosql.h"
#include "zqp_webservice.h"

class Component : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		zq_create_containers(TSRMLS_C);
	}
	void TearDown() override
	{
		zq_empty_containers(TSRMLS_C);
		EngineTest::TearDown();
	}
	zend_llist_element *open(const char *cls, const char *func) { return zq_component_open(cls, func TSRMLS_CC); }
	void close(zend_llist_element *element, int ms)
	{
		zq_component_close(element, ZQG(component_generation), ms TSRMLS_CC);
	}
	/* "metric-exclusive", or "none" */
	std::string sums(const std::string &name)
	{
		auto *sums = (component_hash_element *)FIND_HASH_PVALUE(ZQG(components_hash), name.c_str(), name.size() + 1);
		return sums ? std::to_string(sums->metric) + "-" + std::to_string(sums->exclusive) : "none";
	}
};

TEST_F(Component, ChargesNestedTimeToTheComponentAround)
{
	zend_llist_element *outer = open("Shop", "checkout");
	zend_llist_element *inner = open(nullptr, "pay");
	zq_component_spent_outside(3 TSRMLS_CC);
	close(inner, 10);
	inner = open(nullptr, "pay");
	close(inner, 5);
	zq_component_spent_outside(4 TSRMLS_CC);
	close(outer, 20);
	EXPECT_EQ(sums("PHP/Shop/checkout"), "20-19");
	EXPECT_EQ(sums("PHP/NULL/pay"), "15-3");
	EXPECT_EQ(zend_llist_count(ZQG(components)), 0);
}

TEST_F(Component, ForgetsQuickOnesAndLeavesThoseThatAreNotInnermost)
{
	zend_llist_element *outer = open(nullptr, "outer");
	open(nullptr, "left by exit");
	close(outer, 9);
	EXPECT_EQ(sums("PHP/NULL/outer"), "none");
	EXPECT_EQ(zend_llist_count(ZQG(components)), 2);
	close(open(nullptr, "quick"), 0);
	EXPECT_EQ(sums("PHP/NULL/quick"), "none");
	EXPECT_EQ(zend_llist_count(ZQG(components)), 2);
}

TEST_F(Component, DoesNotTakeANewElementForOneOfAnEmptiedList)
{
	open(nullptr, "before");
	unsigned generation = ZQG(component_generation);
	zq_empty_containers(TSRMLS_C);
	zend_llist_element *reused = open(nullptr, "after");
	zq_component_close(reused, generation, 5 TSRMLS_CC); /* as if the address were that of "before" */
	EXPECT_EQ(sums("PHP/NULL/after"), "none");
	close(reused, 5);
	EXPECT_EQ(sums("PHP/NULL/after"), "5-0");
}

TEST_F(Component, EscapesNames)
{
	close(open("A\\B", "say \"hi\"\n\x01"), 1);
	EXPECT_EQ(sums("PHP/A\\\\B/say \\\"hi\\\"\\n "), "1-0");
}

TEST_F(Component, IsNotKeptWithoutAnAction)
{
	zend_llist *components = std::exchange(ZQG(components), nullptr);
	HashTable *table = std::exchange(ZQG(components_hash), nullptr);
	EXPECT_EQ(open(nullptr, "f"), nullptr);
	zq_component_spent_outside(5 TSRMLS_CC);
	zq_component_add("PHP/NULL/f", 1, 1 TSRMLS_CC);
	ZQG(components) = components;
	ZQG(components_hash) = table;
	EXPECT_EQ(zend_llist_count(components) + zend_hash_num_elements(table), 0);
}

TEST_F(Component, SumsWholeMillisecondsPerStoreOperation)
{
	const struct { const char *key; uint64 us; } operations[] = {{"GET", 1999}, {"SET", 3000}, {"DEL", 999}};
	for (const auto &operation : operations) {
		auto *total = (nosql_hash_element *)emalloc(sizeof(nosql_hash_element));
		total->tsc = operation.us;
		zend_hash_update(ZQG(nosql_redis), operation.key, strlen(operation.key) + 1, &total, sizeof(total), nullptr);
	}
	EXPECT_EQ(zq_nosql_total_ms(ZQG(nosql_redis)), 4);
	EXPECT_EQ(zq_nosql_total_ms(nullptr), 0);
}

TEST_F(Component, NamesOutgoingCallsByAddressAndCallee)
{
	const struct { const char *cls, *func, *uri, *params, *name; } cases[] = {
		{nullptr, "curl_exec", "http://10.0.0.1:8080/api/items/123?x=1", nullptr,
	     "http:%2F%2F10.0.0.1:8080%2Fapi%2Fitems%2F*/curl_exec"},
		{"SoapClient", "__doRequest", "http://h/s.php", "op=pay", "http:%2F%2Fh%2Fs.php?op=pay/SoapClient"},
		{"Api\\Client", "get", "http://h", nullptr, "http:%2F%2Fh/Api\\\\Client"},
	};
	for (const auto &c : cases) {
		webservice_element *service = webservice_element_alloc(c.cls, c.func, c.uri, c.params, "{}");
		EXPECT_STREQ(service->name, c.name);
		EXPECT_STREQ(service->transaction_data, "{}");
		webservice_element_dtor(service);
		efree(service);
	}
}
