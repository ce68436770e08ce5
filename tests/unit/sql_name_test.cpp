#include "engine_fixture.h"
#include "zqp_tracer.h"

class SqlName : public EngineTest {
protected:
	std::string name(const char *statement, const char *db = "MySQL")
	{
		sql_element sql = {db, const_cast<char *>(statement), nullptr, nullptr, 0};
		return taken(metric_name_from_sql(&sql));
	}
};

TEST_F(SqlName, RemovesCommentsAndSqueezesBlanksOutsideAndInsideQuotes)
{
	const struct { const char *statement, *cleaned; } cases[] = {
		{"", ""},
		{"SELECT x FROM a -- c\nWHERE", "SELECT x FROM a WHERE"},
		{" \t a  b\r\n", " a b "},
		{"a/* x */b", "ab"},
		{"/*/ x", " x"},
		{"/**/x", "x"},
		{"a /* open", "a "},
		{"a -- open", "a "},
		{"a - b / c", "a - b / c"},
		{"a # kept", "a # kept"},
		{"'-- no /* comment */'", "'-- no /* comment */'"},
		{"\"it's -- in\" -- out", "\"it's -- in\" "},
		{"'a\\'-- b'", "'a\\'-- b'"},
		{"'a   b'", "'a b'"},
		{"\xff\xc3\xa9", "\xff\xc3\xa9"},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(taken(rm_comment(c.statement)), c.cleaned) << c.statement;
	}
}

TEST_F(SqlName, CutsAStatementWhereItsCleanTextGetsTooLong)
{
	EXPECT_EQ(taken(rm_comment(std::string(20000, 'x').c_str())), std::string(16384, 'x'));
	EXPECT_EQ(taken(rm_comment(("/*" + std::string(20000, 'x') + "*/y").c_str())), "y");
}

TEST_F(SqlName, NamesTableAndOperation)
{
	const struct { const char *statement, *name; } cases[] = {
		{"SELECT * FROM users WHERE id=1", "users/SELECT"},
		{" \nselect * from `orders` o where 1", "orders/SELECT"},
		{"SELECT a FROM (SELECT b FROM t2) x", "t2/SELECT"},
		{"SELECT a FROM(  select b from t3)", "t3/SELECT"},
		{"SELECT a FROM (select b FROM ( SELECT c FROM [deep.t])) x", "deep.t/SELECT"},
		{"SELECT a FROM t1,t2", "t1/SELECT"},
		{"SELECT a FROM f(1)", "f(1)/SELECT"},
		{"SELECT 1", "/SELECT"},
		{"SELECT a FROM", "/SELECT"},
		{"SELECT a FROM ((\"q t\"))", "q/SELECT"},
		{"DELETE FROM logs", "logs/DELETE"},
		{"DELETE", "/DELETE"},
		{"update t1 set a=1", "t1/UPDATE"},
		{"UPDATEX y", "X/UPDATE"},
		{"INSERT INTO t4 (a) VALUES (1)", "t4/INSERT"},
		{"INSERT t5 VALUES (1)", "t5/INSERT"},
		{"CALL p(1)", "CALL/CALL"},
		{"SHOW TABLES", "SHOW/CALL"},
		{"", "/CALL"},
		{"((((", "/CALL"},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(name(c.statement), std::string("Database MySQL/") + c.name) << c.statement;
	}
	EXPECT_EQ(name("SELECT 1", nullptr), "Database //SELECT");
	EXPECT_EQ(name(nullptr), "Database MySQL//CALL");
}

TEST_F(SqlName, KeepsARecordWithoutAStatement)
{
	sql_element *sql = sql_element_alloc("Oracle", nullptr, estrdup("[]"), nullptr, 7);
	EXPECT_STREQ(sql->statement, "sql is null");
	EXPECT_STREQ(sql->stack, "[]");
	sql_element_dtor(sql);
	efree(sql);
}
