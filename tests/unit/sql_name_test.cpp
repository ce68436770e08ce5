#include "engine_fixture.h"
#include "zqp_tracer.h"

class SqlName : public EngineTest {};

TEST_F(SqlName, RemovesCommentsAndSqueezesBlanksOutsideAndInsideQuotes)
{
	expect_made([](const std::string &statement) { return taken(rm_comment(statement.c_str())); }, {
		{"", ""}, {" \t a  b\r\n", " a b "}, {"a--c\nb", "a b"}, {"a/* x */b", "ab"}, {"/*/ x", " x"}, {"/**/x", "x"},
		{"a /* open", "a "}, {"a -- open", "a "}, {"a - b / c # kept", "a - b / c # kept"}, {"'-- no /* comment */'", "'-- no /* comment */'"},
		{"\"it's -- in\" -- out", "\"it's -- in\" "}, {"'a\\'-- b'", "'a\\'-- b'"}, {"'a   b'", "'a b'"}, {"\xff\xc3\xa9", "\xff\xc3\xa9"},
		{std::string(20000, 'x'), std::string(16384, 'x')}, {"/*" + std::string(20000, 'x') + "*/y", "y"},
	});
}

TEST_F(SqlName, NamesTableAndOperation)
{
	const auto name = [](const std::string &statement) {
		sql_element *sql = sql_element_alloc("MySQL", statement == "none" ? nullptr : statement.c_str(), nullptr, nullptr, 0);
		std::string made = taken(metric_name_from_sql(sql)).substr(strlen("Database MySQL/"));
		sql_element_dtor(sql);
		efree(zq_list_node(sql));
		return made;
	};
	expect_made(name, {
		{"SELECT * FROM users WHERE id=1", "users/SELECT"}, {" \nselect * from `orders` o where 1", "orders/SELECT"},
		{"SELECT a FROM (SELECT b FROM t2) x", "t2/SELECT"}, {"SELECT a FROM(  select b from t3)", "t3/SELECT"},
		{"SELECT a FROM (select b FROM ( SELECT c FROM [deep.t])) x", "deep.t/SELECT"}, {"SELECT a FROM t1,t2", "t1/SELECT"},
		{"SELECT a FROM (SELECT b FROM `f(x)`) t", "f(x)/SELECT"},
		{"SELECT a FROM f(1)", "f(1)/SELECT"}, {"SELECT 1", "/SELECT"}, {"SELECT a FROM", "/SELECT"}, {"SELECT a FROM ((\"q t\"))", "q/SELECT"},
		{"DELETE FROM logs", "logs/DELETE"}, {"DELETE", "/DELETE"}, {"update t1 set a=1", "t1/UPDATE"}, {"UPDATEX y", "X/UPDATE"},
		{"INSERT INTO t4 (a) VALUES (1)", "t4/INSERT"}, {"INSERT t5 VALUES (1)", "t5/INSERT"}, {"CALL p(1)", "CALL/CALL"},
		{"SHOW TABLES", "SHOW/CALL"}, {"", "/CALL"}, {"none", "sql/CALL"}, /* "sql is null" */ {"((((", "/CALL"},
	});
	sql_element unknown = {nullptr, nullptr, nullptr, nullptr, 0};
	EXPECT_EQ(taken(metric_name_from_sql(&unknown)), "Database //CALL");
}

