// Statements without their values, the groups they make, and what plans of real servers prove.
#include "daemon_records.h"
#include "facts/plan.h"
#include "print/report.h"
#include "facts/sql_text.h"

#include <nlohmann/json.hpp>
#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

// data/statements.json
TEST(SqlText, LosesItsValuesAndKeepsItsNames) {
  const Json rows = Json::parse(data("statements.json"));
  ASSERT_GT(rows.size(), 10u);
  for (const Json& row : rows) {
    auto text = [&row](const char* member) { return row[member].get<std::string>(); };
    EXPECT_EQ(normalise_sql(text("statement"), text("vendor")), text("kind"));
  }
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
  EXPECT_EQ(groups[1].places.most().at, "/b.php:3") << "the line that took most";
  EXPECT_EQ(groups[1].plan, "{}") << "the plan of the slowest";
  EXPECT_EQ(groups[2].slowest.vendor, "SQLite");
}

// Plans as servers gave them: data/plans.json.
TEST(Plan, TellsWhichTablesAreReadRowByRow) {
  const Json rows = Json::parse(data("plans.json"));
  ASSERT_GT(rows.size(), 20u);
  for (const Json& row : rows) EXPECT_EQ(plan_finding(row["plan"]), row["finding"].get<std::string>()) << row.dump();
}

TEST(Plan, IsATableWithoutEmptyColumnsAndAnEnd) {
  Json plan = {{"keys", {"id", "table", "key", "Extra"}}, {"values", Json::array()}};
  for (int i = 1; i <= 3; i++) plan["values"].push_back({i, "users\x1b", nullptr, std::string(60, 'x')});
  const std::string cells = "   users\\x1b  xxxxxxxxxxxx\u2026xxxxxxxxxxxx";
  const std::vector<std::string> lines = {"id  table      Extra", "1" + cells, "2" + cells, "... and 1 more row"};
  EXPECT_EQ(plan_lines(plan, 40, 2), lines);
  EXPECT_EQ(plan_lines(plan, 200, SIZE_MAX).size(), 4u);
  const Json unnamed = Json::parse(R"({"keys":["QUERY PLAN"],"values":[["Hash"],["  ->  Seq"]]})");
  EXPECT_EQ(plan_lines(unnamed, 80, 9), (std::vector<std::string>{"Hash", "  ->  Seq"}));
  EXPECT_EQ(plan_lines(Json::object(), 80, 9), std::vector<std::string>{"none"});
}
