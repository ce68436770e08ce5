#include "engine_fixture.h"

#include "zqp_component.h"
#include "zqp_nosql.h"

class Nosql : public EngineTest {};

TEST_F(Nosql, BoundsKeysAndRows)
{
	const auto add = [&](const std::string &collection, const std::string &operation, uint64 us) {
		zq_nosql_add(ZQG(nosql_mongo), collection.c_str(), operation.c_str(), ZQ_OPERATION_AS_GIVEN, us TSRMLS_CC);
	};
	std::string full(510, 'c');
	add(full, "find", 1);
	add(full + "d", "find", 2);
	for (int i = 1; i < 5000; i++) {
		add("db", std::to_string(i), 1);
	}
	add("db", "3", 1);
	const struct { std::string key; uint64 us; } rows[] = {{full + "\n", 3}, {"db\n3", 2}, {"db\n4095", 1}, {"\n", 5000 - 4096}};
	for (const auto &row : rows) {
		auto *total = (nosql_hash_element *)FIND_HASH_PVALUE(ZQG(nosql_mongo), row.key.c_str(), (uint)row.key.size() + 1);
		EXPECT_EQ(total ? total->tsc : 0, row.us) << row.key; /* time without a row of its own is not lost */
	}
	EXPECT_EQ(4097u, zend_hash_num_elements(ZQG(nosql_mongo)));
}

TEST_F(Nosql, NamesOperationsInUpperCaseUnlessTheyDoNotCount)
{
	expect_made([](const std::string &name) { return taken(get_nosql_op_name(name.c_str(), zq_name_hash(name.data(), name.size()))); },
	            {{"getMulti", "GETMULTI"}, {"getStats", "(null)"}, {"_get", "(null)"}});
	EXPECT_EQ(taken(get_nosql_op_name("hGetAll", 0)) + taken(get_nosql_op_name("_prefix", 0)), "HGETALL(null)");
}
