/* Operations of caches and document stores: which count, under which key, and how the rows add up. */
#include <map>
#include <string>

#include "engine_fixture.h"

#include "zqp_component.h"
#include "zqp_nosql.h"

namespace {

class Nosql : public EngineTest {
protected:
	void SetUp() override
	{
		EngineTest::SetUp();
		zq_create_containers(TSRMLS_C);
	}

	void add(const char *collection, const char *operation, zq_operation_case spelling, uint64 elapsed_us)
	{
		zq_nosql_add(ZQG(nosql_mongo), collection, operation, spelling, elapsed_us TSRMLS_CC);
	}

	std::map<std::string, uint64> rows()
	{
		std::map<std::string, uint64> found;
		for (Bucket *at = ZQG(nosql_mongo)->pListHead; at; at = at->pListNext) {
			EXPECT_EQ(strlen(at->arKey) + 1, at->nKeyLength);
			found[at->arKey] = (*(nosql_hash_element **)at->pData)->tsc;
		}
		return found;
	}
};

TEST_F(Nosql, NamesWhatCountsInUpperCase)
{
	struct {
		const char *name;
		int filtered;
		const char *expected;
	} cases[] = {
		{"hGetAll", 0, "HGETALL"},
		{"get", 1, "GET"},
		{"getDelayedByKey", 1, "GETDELAYEDBYKEY"},
		{"deleteIndexes", 1, "DELETEINDEXES"},
		{"getStats", 0, "GETSTATS"},
		{"getStats", 1, "(null)"},
		{"Get", 1, "(null)"},
		{"_prefix", 0, "(null)"},
		{"_get", 1, "(null)"},
		{"__construct", 0, "(null)"},
		{"", 0, ""},
		{"", 1, "(null)"},
		{"caf\xC3\xA9", 0, "CAF\xC3\xA9"},
	};
	EXPECT_EQ(nullptr, get_nosql_op_name(NULL, 0));
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		EXPECT_EQ(c.expected, taken(get_nosql_op_name(c.name, c.filtered ? zq_name_hash(c.name, strlen(c.name)) : 0)));
	}
}

TEST_F(Nosql, AddsUpMicrosecondsUnderEachKey)
{
	add(NULL, "get", ZQ_OPERATION_UPPER, 300);
	add(NULL, "GET", ZQ_OPERATION_AS_GIVEN, 500);
	add(NULL, "get", ZQ_OPERATION_AS_GIVEN, 7);
	add("shop.orders", "find", ZQ_OPERATION_UPPER, 5000000000);
	add("shop.orders", "find", ZQ_OPERATION_UPPER, 1);
	add("", "find", ZQ_OPERATION_UPPER, 0);
	zq_nosql_add(NULL, NULL, "get", ZQ_OPERATION_UPPER, 1000000 TSRMLS_CC);
	std::map<std::string, uint64> expected = {{"GET", 800}, {"get", 7}, {"shop.orders\nFIND", 5000000001}, {"\nFIND", 0}};
	EXPECT_EQ(expected, rows());
}

TEST_F(Nosql, ChargesEachCallsWholeMillisecondsToTheOpenComponent)
{
	add(NULL, "get", ZQ_OPERATION_UPPER, 9000); /* none is open */
	zend_llist_element *outer = zq_component_open(NULL, "outer" TSRMLS_CC), *inner = zq_component_open(NULL, "inner" TSRMLS_CC);
	for (uint64 elapsed_us : {999, 1999, 999, 2000}) {
		add(NULL, "get", ZQ_OPERATION_UPPER, elapsed_us);
	}
	EXPECT_EQ(3, ((component_element *)inner->data)->exclusive);
	EXPECT_EQ(0, ((component_element *)outer->data)->exclusive);
	EXPECT_EQ(0, ZQG(sum_db_metric));
}

TEST_F(Nosql, BoundsKeysAndRows)
{
	std::string full(510, 'c'), longer(100000, 'd');
	add(full.c_str(), "find", ZQ_OPERATION_UPPER, 1);
	add(NULL, longer.c_str(), ZQ_OPERATION_AS_GIVEN, 2);
	add(longer.c_str(), "find", ZQ_OPERATION_UPPER, 3);
	std::map<std::string, uint64> expected = {{full + "\n", 1}, {longer.substr(0, 511), 2}, {longer.substr(0, 510) + "\n", 3}};
	EXPECT_EQ(expected, rows());

	for (int i = 3; i < 5000; i++) {
		add("db", std::to_string(i).c_str(), ZQ_OPERATION_AS_GIVEN, 1);
	}
	add("db", "3", ZQ_OPERATION_AS_GIVEN, 1);
	EXPECT_EQ(4097u, rows().size());
	EXPECT_EQ(2u, rows()["db\n3"]);
	EXPECT_EQ(5000u - 4096u, rows()["\n"]) << "time without a row of its own is not lost";
}

} // namespace
