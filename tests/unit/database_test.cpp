/* Which statements may be sent once more after EXPLAIN, whose database a data source names, and which calls repeat the
 * one before. */
#include "engine_fixture.h"
#include "zqp_action.h"
#include "zqp_tracer.h"
#include "zqp_wrapper_database.h"

const struct { bool is_single, is_plannable; const char *text; } statements[] = {
	{true, true, " select 1 ;\n"}, {true, true, "-- all\nSELECT 1"},
	{true, true, "/* all */ with t as (select 1) select * from t"}, {true, true, "TABLE t"},
	{true, true, "DELETE\nFROM t"}, {true, true, "SELECT into_, _into FROM winto"}, {true, false, ""},
	{true, false, "SELECTED"}, {true, false, "CREATE TABLE t AS SELECT 1"},
	{true, false, "SELECT a\ninto\toutfile 'x' FROM t"},
	{true, false, "WITH x AS (INSERT INTO t VALUES (1) RETURNING a) SELECT a FROM x"}, {true, false, "/*! SELECT */ 1"},
	{true, true, "SELECT ';', \";\" FROM t;"}, {true, true, "SELECT 'it''s;'"},
	{true, true, "SELECT 1 /* ; */ -- ;\n+ 1"}, {true, true, "SELECT 1 -- ; ' \r\n, ';'"},
	{true, true, "SELECT a FROM `t` WHERE b = ';' AND c = $1"}, {false, true, "SELECT 1; DELETE FROM t"},
	{false, true, "SELECT 1;;"},
	/* where one database sees a quote or a comment, and another the end of it */
	{false, true, "SELECT 'a\\'; DELETE FROM t; -- '"}, {false, true, "SELECT 'a\\', '; DELETE FROM t; -- '"},
	{false, true, "SELECT 1 # ; '\n; DELETE FROM t -- '"}, {false, true, "SELECT 1--1; DELETE FROM t"},
	{false, true, "SELECT 1 -- x\r; DELETE FROM t"}, {false, true, "SELECT 1 /* /* */ ; DELETE FROM t; -- */"},
	{false, true, "SELECT 1 /*! ; DELETE FROM t */"}, {false, true, "SELECT $$ ' $$; DELETE FROM t; SELECT $$ ' $$"},
	{false, true, "SELECT $a$;$a$"}, {false, true, "SELECT `a'b`, ';'"}, {false, true, "SELECT 1 /*/; DELETE FROM t"},
	{false, true, "SELECT ['] ; DELETE FROM t; -- '"}, {false, true, "SELECT ` -- `, '\n; DELETE FROM t; -- '"},
};

TEST(Explain, IsSentOnlyForAStatementThatIsAloneAndHasAPlan)
{
	for (const auto &statement : statements) {
		EXPECT_EQ(zq_is_single_statement(statement.text), statement.is_single) << statement.text;
		EXPECT_EQ(zq_is_plannable(statement.text), statement.is_plannable) << statement.text;
	}
}

TEST(PdoVendor, IsReadFromTheDataSourceName)
{
	const std::pair<const char *, const char *> cases[] = {
		{"mysql:host=db1", "MySQL"}, {"mssql:host=db1", "SQLServer"}, {"pgsql:host=db1", "PostgreSQL"}, {"something sqlite:x", "SQLite"},
		{"sqlsrv:Server=x", "SQLServer"}, {"sybase:host=x", "Sybase"}, {"oci:dbname=x", "Oracle"}, {"ibm:DRIVER=x", "DB2"},
		{"mSSQL:dbname=MYSQL:", "MySQL"}, {"MySQL:host=db1", nullptr}, {"uri:file:///sqlite:x", nullptr}, {nullptr, nullptr},
	};
	for (const auto &[dsn, vendor] : cases) {
		EXPECT_STREQ(zq_pdo_vendor(dsn), vendor) << dsn;
	}
}

class KeptStatements : public EngineTest {};

TEST_F(KeptStatements, CountARepetitionOnlyWhenNothingOfItDiffers)
{
	static const char mysql[] = "MySQL", sqlite[] = "SQLite";
	const std::string longest(20000, 'x'), longest_kept(ZQ_MAX_STATEMENT, 'x');
	const struct { const char *db; std::string statement; int ms, may_repeat; std::string kept; unsigned repeats; } calls[] = {
		{mysql, "SELECT 1", 0, 1, "SELECT 1", 0}, {mysql, "SELECT 1", 0, 1, "SELECT 1", 1}, {mysql, "SELECT 1", 0, 0, "SELECT 1", 0},
		{mysql, "SELECT 1", 1, 1, "SELECT 1", 0}, {sqlite, "SELECT 1", 1, 1, "SELECT 1", 0}, {sqlite, "SELECT 1 ", 1, 1, "SELECT 1 ", 0},
		{sqlite, "SELECT\n2", 1, 1, "SELECT 2", 0}, {sqlite, "SELECT 2", 1, 1, "SELECT 2", 1},
		{sqlite, "-/**/- c", 1, 1, "-- c", 0}, {sqlite, "-- c", 1, 1, "", 0}, {sqlite, "", 1, 1, "", 0}, {sqlite, "", 1, 1, "", 1},
		{sqlite, longest, 1, 1, longest_kept, 0}, {sqlite, longest, 1, 1, longest_kept, 0}, {nullptr, "SELECT 3", 1, 1, "SELECT 3", 0},
	};
	zend_llist list;
	zend_llist_init(&list, sizeof(sql_element), sql_element_dtor, 0);
	for (const auto &call : calls) {
		int records = zend_llist_count(&list);
		sql_element *record = zq_keep_statement(&list, call.db, call.statement.c_str(), call.ms, ZQ_NO_PLACE, call.may_repeat);
		EXPECT_EQ(record->repeats, call.repeats) << call.statement;
		EXPECT_EQ(record->statement, call.kept);
		EXPECT_EQ(zend_llist_count(&list), records + (call.repeats == 0));
	}
	((sql_element *)list.tail->data)->stack = estrdup("[]");
	EXPECT_EQ(zq_keep_statement(&list, nullptr, "SELECT 3", 1, ZQ_NO_PLACE, 1)->repeats, 0u) << "a record with a stack is one of its own";
	zend_llist_destroy(&list);
}

/* A second one like it has a record of its own when the first could not stand for both. */
TEST_F(KeptStatements, HaveStackAndPlanFromTheirThresholdOnAndATraceBeyondIt)
{
	static const zq_sql_client client = {nullptr, "query", nullptr, nullptr, nullptr, 0, 0, false, false};
	static const zq_sql_api api = {"Test", [](zq_stack_data *, char **TSRMLS_DC) { return "SELECT 1"; }, nullptr, &client, false};
	constexpr int never = 60000;
	const struct { int slow_ms, explain_ms; uint64 trace_us, elapsed_us; int records; bool stack; int traced; } cases[] = {
		{never, never, 600000, 500000, 1, false, 0},
		{500, never, 600000, 499999, 1, false, 0}, {500, never, 600000, 500000, 2, true, 0},
		{never, 500, 600000, 499999, 1, false, 0}, {never, 500, 600000, 500000, 2, false, 0},
		{never, never, 500000, 500000, 1, false, 0}, {never, never, 500000, 500001, 2, false, 3},
	};
	ZQG(action_tracer_enabled) = ZQG(action_tracer_slow_sql) = ZQG(action_tracer_explain_enabled) = 1;
	for (const auto &c : cases) {
		zq_empty_containers(TSRMLS_C);
		ZQG(action_tracer_slow_sql_threshold) = c.slow_ms;
		ZQG(action_tracer_explain_threshold) = c.explain_ms;
		ZQG(tracer_threshold_tick) = c.trace_us;
		char func[] = "query";
		zq_stack_data call = {};
		call.func = func;
		const uint64 begin_us = ZQG(rinit_tick), end_us = begin_us + c.elapsed_us;
		for (int twice = 0; twice < 2; twice++) {
			zq_record_sql(&api, &call, begin_us, end_us TSRMLS_CC);
		}
		zq_trace_default(&call, begin_us, end_us TSRMLS_CC);
		EXPECT_EQ(c.records, zend_llist_count(ZQG(sqls))) << c.elapsed_us;
		EXPECT_EQ(c.stack, ((const sql_element *)ZQG(sqls)->tail->data)->stack != nullptr) << c.elapsed_us;
		EXPECT_EQ(c.traced, zend_llist_count(ZQG(tracer))) << c.elapsed_us;
	}
}
