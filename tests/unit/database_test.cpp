/* Which statements may be sent once more behind EXPLAIN, and whose database a data source names. */
#include "engine_fixture.h"
#include "zqp_tracer.h"
#include "zqp_wrapper_database.h"

struct Statement {
	const char *text;
	bool is_single;
	bool is_plannable;
};

static const Statement statements[] = {
	{"SELECT 1", true, true},
	{" select 1 ;\n", true, true},
	{"((SELECT 1) UNION (SELECT 2))", true, true},
	{"-- all\nSELECT 1", true, true},
	{"/* all */ with t as (select 1) select * from t", true, true},
	{"VALUES (1), (2)", true, true},
	{"TABLE t", true, true},
	{"INSERT INTO t VALUES (1)", true, true},
	{"replace into t values (1)", true, true},
	{"UPDATE t SET a = 1", true, true},
	{"DELETE\nFROM t", true, true},
	{"", true, false},
	{";", true, false},
	{"SELECTED", true, false},
	{"CREATE TABLE t AS SELECT 1", true, false},
	{"SHOW TABLES", true, false},
	{"EXPLAIN SELECT 1", true, false},
	{"ANALYZE SELECT 1", true, false},
	{"COMMIT", true, false},
	{"CALL p()", true, false},
	{"SELECT 1 INTO t", true, false},
	{"SELECT a\ninto\toutfile 'x' FROM t", true, false},
	{"SELECT into_, _into FROM winto", true, true},
	{"WITH x AS (INSERT INTO t VALUES (1) RETURNING a) SELECT a FROM x", true, false},
	{"/*! SELECT */ 1", true, false},
	{"SELECT 1; DELETE FROM t", false, true},
	{"SELECT 1;;", false, true},
	{"SELECT 1; -- done", false, true},
	{"SELECT ';', \";\" FROM t;", true, true},
	{"SELECT 'it''s;'", true, true},
	{"SELECT 1 /* ; */ -- ;\n+ 1", true, true},
	{"SELECT 1 -- ; ' \r\n, ';'", true, true},
	{"SELECT a FROM `t` WHERE b = ';'", true, true},
	{"SELECT a FROM t WHERE b = ';' AND c = $1", true, true},
	/* where one database sees a quote or a comment, and another the end of it */
	{"SELECT 'a\\'; DELETE FROM t; -- '", false, true},
	{"SELECT 'a\\\\'; DELETE FROM t", false, true},
	{"SELECT 1 # ; '\n; DELETE FROM t -- '", false, true},
	{"SELECT 1--1; DELETE FROM t", false, true},
	{"SELECT 1 -- x\r; DELETE FROM t", false, true},
	{"SELECT 1 /* /* */ ; DELETE FROM t; -- */", false, true},
	{"SELECT 1 /*! ; DELETE FROM t */", false, true},
	{"SELECT 1 /*M! ; DELETE FROM t */", false, true},
	{"SELECT $$ ' $$; DELETE FROM t; SELECT $$ ' $$", false, true},
	{"SELECT $a$;$a$", false, true},
	{"SELECT `a'b`, ';'", false, true},
	{"SELECT `;`", false, true},
	{"SELECT 'open; DELETE FROM t", false, true},
	{"SELECT 1 /* open; DELETE FROM t", false, true},
	{"SELECT 1 /*/; DELETE FROM t", false, true},
};

TEST(Explain, IsSentOnlyForAStatementThatIsAloneAndHasAPlan)
{
	for (const Statement &statement : statements) {
		EXPECT_EQ(zq_is_single_statement(statement.text), statement.is_single) << statement.text;
		EXPECT_EQ(zq_is_plannable(statement.text), statement.is_plannable) << statement.text;
	}
}

TEST(PdoVendor, IsReadFromTheDataSourceName)
{
	const struct {
		const char *dsn;
		const char *vendor;
	} cases[] = {
		{"mysql:host=db1", "MySQL"},         {"mssql:host=db1", "SQLServer"}, {"pgsql:host=db1", "PostgreSQL"},
		{"sqlite::memory:", "SQLite"},       {"sqlsrv:Server=x", "SQLServer"}, {"sybase:host=x", "Sybase"},
		{"oci:dbname=x", "Oracle"},          {"ibm:DRIVER=x", "DB2"},          {"mSSQL:dbname=MYSQL:", "MySQL"},
		{"something sqlite:x", "SQLite"},    {"MySQL:host=db1", NULL},         {"firebird:dbname=x", NULL},
		{"uri:file:///sqlite:x", NULL},      {"informix:host=x", NULL},        {"p:mysql:", NULL},
		{"sqlsrv: sybase: sqlite:", "SQLite"}, {"", NULL},                     {NULL, NULL},
	};
	for (const auto &row : cases) {
		EXPECT_STREQ(zq_pdo_vendor(row.dsn), row.vendor) << (row.dsn ? row.dsn : "null");
	}
}

class KeptStatements : public EngineTest {};

TEST_F(KeptStatements, CountARepetitionOnlyWhenNothingOfItDiffers)
{
	static const char mysql[] = "MySQL", sqlite[] = "SQLite";
	const std::string longest(20000, 'x');
	const struct {
		const char *db, *statement;
		int ms, may_repeat;
		const char *kept; /* null: a repetition */
	} calls[] = {
		{mysql, "SELECT 1", 0, 1, "SELECT 1"},    {mysql, "SELECT 1", 0, 1, NULL},
		{mysql, "SELECT 1", 0, 0, "SELECT 1"},    {mysql, "SELECT 1", 1, 1, "SELECT 1"},
		{sqlite, "SELECT 1", 1, 1, "SELECT 1"},   {sqlite, "SELECT 1 ", 1, 1, "SELECT 1 "},
		{sqlite, "SELECT\n2", 1, 1, "SELECT 2"},  {sqlite, "SELECT 2", 1, 1, NULL},
		{sqlite, "-/**/- c", 1, 1, "-- c"},       {sqlite, "-- c", 1, 1, ""},
		{sqlite, "", 1, 1, ""},                   {sqlite, "", 1, 1, NULL},
		{sqlite, longest.c_str(), 1, 1, longest.c_str() + 20000 - ZQ_MAX_STATEMENT},
		{sqlite, longest.c_str(), 1, 1, longest.c_str() + 20000 - ZQ_MAX_STATEMENT},
		{NULL, "SELECT 3", 1, 1, "SELECT 3"},     {NULL, "SELECT 3", 1, 1, NULL},
	};
	zend_llist list;
	zend_llist_init(&list, sizeof(sql_element), sql_element_dtor, 0);
	size_t records = 0;
	unsigned repeats = 0;
	for (const auto &call : calls) {
		sql_element *record = zq_keep_statement(&list, call.db, call.statement, call.ms, call.may_repeat);
		records += call.kept != NULL;
		repeats = call.kept ? 0 : repeats + 1;
		EXPECT_EQ(zend_llist_count(&list), records) << call.statement;
		EXPECT_EQ(record->repeats, repeats) << call.statement;
		EXPECT_EQ((void *)record, list.tail->data);
		if (call.kept) {
			EXPECT_STREQ(record->statement, call.kept);
		}
	}
	((sql_element *)list.tail->data)->stack = estrdup("[]");
	EXPECT_EQ(zq_keep_statement(&list, NULL, "SELECT 3", 1, 1)->repeats, 0u) << "a record with a stack is one of its own";
	zend_llist_destroy(&list);
}
