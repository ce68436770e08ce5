// Statements without their values, the groups they make, and what plans of real servers prove.
#include "plan.h"
#include "report.h"
#include "sql_text.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace quorbit;

TEST(SqlText, LosesItsValuesAndKeepsItsNames) {
  const struct {
    const char *vendor, *statement, *kind;
  } rows[] = {
      {"MySQL", "SELECT a1, t2.c3 FROM t1 WHERE id=12 AND x > -1.5e-3 OR h = 0x1F+.5", "SELECT a1, t2.c3 FROM t1 WHERE id=? AND x > -? OR h = ?+?"},
      {"MySQL", "  SELECT\n\t1  ", "SELECT ?"},
      {"MySQL", "SELECT 'it''s', \"5\\\"\", 'a\\'b' FROM `t 1`", "SELECT ?, ?, ? FROM `t 1`"},
      {"MySQL", "SELECT 5--3 -- why 1\n, 'x' # 2\n/* 3 */ FROM t", "SELECT ?--?, ? FROM t"},
      {"PostgreSQL", "SELECT \"Col 1\", 'C:\\', E'a\\'b' FROM \"T1\" WHERE a = $1::int4", "SELECT \"Col 1\", ?, E? FROM \"T1\" WHERE a = $1::int4"},
      {"PostgreSQL", "SELECT $$it's 1$$, $b$ $$ 2 $b$, 3", "SELECT ?, ?, ?"},
      {"PostgreSQL", "SELECT a#>'{1}' FROM t", "SELECT a#>? FROM t"},
      {"SQLite", "SELECT x'1F' FROM t WHERE a = :id1 AND b = $name2", "SELECT x? FROM t WHERE a = :id1 AND b = $name2"},
      {"MySQL", "WHERE a IN (1,2, 3 ,4) AND b in(?, ?) AND c IN (7) LIMIT 10, 20", "WHERE a IN (?, ...) AND b in(?, ...) AND c IN (?) LIMIT ?, ?"},
      {"MySQL", "INSERT INTO t VALUES (1, 'a'), (2, 'b')", "INSERT INTO t VALUES (?, ?), (?, ?)"},
      {"MySQL", "SELECT 'never ends", "SELECT ?"},
      {"MySQL", "SELECT /* never ends", "SELECT"},
      {"MySQL", "SELECT 'ends in an escape\\", "SELECT ?"},
      {"SQLite", "SELECT \u00e9t\u00e91 FROM caf\u00e9", "SELECT \u00e9t\u00e91 FROM caf\u00e9"},
      {"", "", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(normalise_sql(row.statement, row.vendor), row.kind) << row.statement;
}

TEST(SqlGroups, AreStatementsThatDifferInValuesOnly) {
  auto groups = group_statements({
      {5, "MySQL", "SELECT a FROM t1 WHERE id = 1", R"j(["PDO.query(/b.php:3)"])j", ""},
      {2, "SQLite", "SELECT a FROM t1 WHERE id = 1", "", ""},
      {9, "MySQL", "SELECT a FROM t1 WHERE id = 2", R"j(["PDO.query(/a b.php:12)","main(/x.php:1)"])j", "{}"},
      {7, "MySQL", "SELECT a FROM t1 WHERE id = 3", R"j(["PDO.query(/b.php:3)"])j", R"j({"keys":[]})j"},
      {30, "MySQL", "SELECT a FROM t2 WHERE id = 1", "", ""},
  });
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[0].kind, "SELECT a FROM t2 WHERE id = ?") << "most time first";
  EXPECT_EQ(groups[1].count, 3);
  EXPECT_EQ(groups[1].total_ms, 21);
  EXPECT_EQ(groups[1].slowest.statement, "SELECT a FROM t1 WHERE id = 2");
  EXPECT_EQ(groups[1].place(), "/a b.php:12") << "the line of the slowest";
  EXPECT_EQ(groups[1].places.size(), 2u);
  EXPECT_EQ(groups[1].plan, "{}") << "the plan of the slowest";
  EXPECT_EQ(groups[2].slowest.vendor, "SQLite");
}

namespace {

Json plan_of(const char* json) { return *parse_agent_json(json); }

// SQLite's listing from "opcode,p1,p2,p3,p4 ...".
Json listing(const std::string& text) {
  Json plan = {{"dialect", "PDO"}, {"keys", {"addr", "opcode", "p1", "p2", "p3", "p4"}}, {"values", Json::array()}};
  std::istringstream steps(text);
  for (std::string step; steps >> step;) {
    Json row = {std::to_string(plan["values"].size())};
    for (int i = 0; i < 4; i++) {
      row.push_back(step.substr(0, step.find(',')));
      step.erase(0, step.find(',') + 1);
    }
    row.push_back(step);
    plan["values"].push_back(row);
  }
  return plan;
}

constexpr const char* mysql_keys = R"j("keys":["id","select_type","table","type","possible_keys","key","key_len","ref","rows","Extra"])j";

}  // namespace

TEST(Plan, TellsWhichTablesAreReadRowByRow) {
  auto mysql = [](const std::string& rows) { return plan_of(("{\"dialect\":\"MySQL\"," + std::string(mysql_keys) + ",\"values\":[" + rows + "]}").c_str()); };
  auto postgres = [](const std::string& rows) { return plan_of(("{\"dialect\":\"PGSQL\",\"keys\":[\"QUERY PLAN\"],\"values\":[" + rows + "]}").c_str()); };
  const std::string end = " row by row, without an index";
  const struct {
    Json plan;
    std::string finding;
  } rows[] = {
      {mysql(R"j(["1","SIMPLE","users","ALL",null,null,null,null,"1040","Using where"])j"), "scans the table users (about 1040 rows)" + end},
      {mysql(R"j(["1","SIMPLE","u","ALL","PRIMARY",null,null,null,"1",""],["1","SIMPLE","o","eq_ref","PRIMARY","PRIMARY","4","shop.u.id","1","Using where"])j"),
       "scans the table u (about 1 row)" + end},
      {mysql(R"j([1,"SIMPLE","users","const","PRIMARY","PRIMARY","4","const",1,""])j"), ""},
      {mysql(R"j(["1","PRIMARY","<derived2>","ALL",null,null,null,null,"2","Using where"],["2","DERIVED","users","index",null,"name",null,null,"1",""])j"), ""},
      {mysql(R"j(["1","PRIMARY",null,null,null,null,null,null,null,"Impossible WHERE"])j"), ""},
      {postgres(R"j(["Seq Scan on users  (cost=0.00..25.88 rows=6 width=36)"],["  Filter: (name = 'Seq Scan on x'::text)"])j"), "scans the table users" + end},
      {postgres(R"j(["Hash Join  (cost=47.66..73.71 rows=423 width=36)"],["  Hash Cond: (u.id = o.id)"],
                   ["  ->  Seq Scan on users u  (cost=0.00..22.70 rows=1270 width=36)"],["  ->  Hash  (cost=38.25..38.25 rows=753 width=8)"],
                   ["        ->  Parallel Seq Scan on \"my orders\" o  (cost=0.00..38.25 rows=753 width=8)"],["              Filter: (total > 5)"])j"),
       "scans the tables users, \"my orders\"" + end},
      {postgres(R"j(["Index Scan using users_pkey on users  (cost=0.15..8.17 rows=1 width=36)"],["  Index Cond: (id = 1)"])j"), ""},
      // avg(stars) WHERE product = 25; ORDER BY id DESC; a join that looks products up by their row ids
      {listing("Init,0,14,0, Null,0,1,2, OpenRead,0,3,0,2 Rewind,0,9,0, Column,0,0,3, Ne,4,8,3,(BINARY) Column,0,1,5, AggStep,0,5,1,avg(1) "
               "Next,0,4,0, Close,0,0,0, AggFinal,1,1,0,avg(1) Copy,1,6,0, ResultRow,6,1,0, Halt,0,0,0, Transaction,0,0,4,0 "
               "TableLock,0,3,0,reviews Integer,25,4,0, Goto,0,1,0,"), "reads the whole table reviews" + end},
      {listing("Init,0,9,0, Noop,0,0,0, OpenRead,0,2,0,2 Last,0,7,0, Column,0,1,1, ResultRow,1,1,0, Prev,0,4,0, Close,0,0,0, Halt,0,0,0, "
               "Transaction,0,0,4,0 Goto,0,1,0,"), "reads a whole table" + end},
      {listing("Init,0,14,0, OpenRead,0,3,0,2 OpenRead,1,2,0,2 Rewind,0,11,0, Column,0,0,1, MustBeInt,1,10,0, NotExists,1,10,1, Column,0,1,2, "
               "Column,1,1,3, ResultRow,2,2,0, Next,0,4,0, Close,0,0,0, Close,1,0,0, Halt,0,0,0, Transaction,0,0,4,0 TableLock,0,3,0,reviews "
               "TableLock,0,2,0,products Goto,0,1,0,"), "reads the whole table reviews" + end},
      // EXISTS leaves the loop over reviews at the first hit, but not the one over products
      {listing("Init,0,20,0, OpenRead,0,2,0,2 Rewind,0,18,0, Integer,0,2,0, Integer,1,3,0, OpenRead,1,3,0,1 Rewind,1,13,0, Column,1,0,4, "
               "Rowid,0,5,0, Ne,5,12,4,(BINARY) Integer,1,2,0, DecrJumpZero,3,13,0, Next,1,7,0, Close,1,0,0, IfNot,2,17,1, Column,0,1,7, "
               "ResultRow,7,1,0, Next,0,3,0, Close,0,0,0, Halt,0,0,0, TableLock,0,2,0,products TableLock,0,3,0,reviews Goto,0,1,0,"),
       "reads the whole table products" + end},
      // LIMIT 3; max(id); an index's rows; an index and a table together; id > 10
      {listing("Init,0,12,0, Integer,3,1,0, OpenRead,0,3,0,3 Rewind,0,10,0, Column,0,0,2, Column,0,1,3, Column,0,2,4, ResultRow,2,3,0, "
               "DecrJumpZero,1,10,0, Next,0,4,0, Close,0,0,0, Halt,0,0,0, TableLock,0,3,0,reviews"), ""},
      {listing("Init,0,14,0, Null,0,1,2, OpenRead,0,2,0,0 Last,0,9,0, Rowid,0,3,0, CollSeq,0,0,0,(BINARY) AggStep,0,3,1,max(1) Goto,0,9,0, "
               "Prev,0,4,0, Close,0,0,0, AggFinal,1,1,0,max(1) TableLock,0,2,0,products"), ""},
      {listing("Init,0,8,0, OpenRead,1,5,0,k(2,nil,nil) Rewind,1,6,1,0 Column,1,0,1, ResultRow,1,1,0, Next,1,3,0, Close,1,0,0, Halt,0,0,0, "
               "TableLock,0,4,0,tags"), ""},
      {listing("Init,0,14,0, OpenRead,0,4,0,2 OpenRead,1,5,0,k(2,nil,nil) Integer,3,1,0, SeekGE,1,11,1,1 IdxGT,1,11,1,1 IdxRowid,1,2,0, "
               "Seek,0,2,0, Column,0,1,3, ResultRow,3,1,0, Next,1,5,1, Close,0,0,0, TableLock,0,4,0,tags"), ""},
      {listing("Init,0,8,0, OpenRead,0,2,0,2 SeekGT,0,6,1, Column,0,1,2, ResultRow,2,1,0, Next,0,3,0, Close,0,0,0, TableLock,0,2,0,products"), ""},
      {listing("Next,0,-5,0, Next,0,99,0, OpenRead,0,1,0,1"), ""},
      {plan_of("{}"), ""},
      {plan_of(R"j({"keys":7,"values":"x"})j"), ""},
      {plan_of(R"j({"keys":["table","type"],"values":[["t"],null,"x",[]]})j"), ""},
  };
  for (const auto& row : rows) EXPECT_EQ(plan_finding(row.plan), row.finding) << row.plan.dump();
}

TEST(Plan, IsATableWithoutEmptyColumnsAndAnEnd) {
  Json plan = {{"keys", {"id", "table", "key", "Extra"}}, {"values", Json::array()}};
  for (int i = 1; i <= 3; i++) plan["values"].push_back({i, "users\x1b", nullptr, std::string(60, 'x')});
  EXPECT_EQ(plan_lines(plan, 40, 2), (std::vector<std::string>{"id  table      Extra", "1   users\\x1b  xxxxxxxxxxxx\u2026xxxxxxxxxxxx",
                                                              "2   users\\x1b  xxxxxxxxxxxx\u2026xxxxxxxxxxxx", "... and 1 more row"}));
  EXPECT_EQ(plan_lines(plan, 200, SIZE_MAX).size(), 4u);
  EXPECT_EQ(plan_lines(plan_of(R"j({"keys":["QUERY PLAN"],"values":[["Hash"],["  ->  Seq"]]})j"), 80, 9), (std::vector<std::string>{"Hash", "  ->  Seq"}));
  EXPECT_EQ(plan_lines(plan_of("{}"), 80, 9), std::vector<std::string>{"none"});
}
