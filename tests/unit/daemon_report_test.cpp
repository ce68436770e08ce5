// What the commands print: harmless texts, tables, sums, traces, profiles, JSON.
#include "daemon_records.h"
#include "report.h"
#include "text.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace quorbit;
using namespace quorbit_test;

TEST(Text, IsHarmlessOnATerminal) {
  const struct {
    std::string text, printed;
  } rows[] = {
      {"plain caf\u00e9 \u65e5\u672c \U0001F600", "plain caf\u00e9 \u65e5\u672c \U0001F600"},
      {"\x1b[31mred\x07\r\n\t\x7f", "\\x1b[31mred\\x07\\x0d\\n\\t\\x7f"},
      {"nul\0x"s, "nul\\x00x"},
      {"\xc2\x9b"s + "31m", "\\u009b31m"},                      // the one-byte escape, as a code point
      {"\u202egnp.exe\u2066\u200f", "\\u202egnp.exe\\u2066\\u200f"},
      {"\xff\xc3(\xe2\x82", "\\xff\\xc3(\\xe2\\x82"},
      {"\xe0\x80\xaf\xed\xa0\x80\xf4\x90\x80\x80", "\\xe0\\x80\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},  // overlong, surrogate, too large
  };
  for (const auto& row : rows) EXPECT_EQ(printable(row.text), row.printed);
  EXPECT_EQ(valid_utf8("a\xff\u00e9\xe2\x82"), "a\uFFFD\u00e9\uFFFD\uFFFD");
}

TEST(Text, IsCutAndWrappedByColumnsNotBytes) {
  EXPECT_EQ(cut("\u00e9\u00e9\u00e9", 3), "\u00e9\u00e9\u00e9");
  EXPECT_EQ(cut("\u00e9\u00e9\u00e9\u00e9", 3), "\u00e9\u00e9\u2026");
  EXPECT_EQ(wrap("one two three", 8, 9), (std::vector<std::string>{"one two", "three"}));
  EXPECT_EQ(wrap("abcdefghij", 4, 9), (std::vector<std::string>{"abcd", "efgh", "ij"}));
  EXPECT_EQ(wrap("abcdefghij", 4, 2), (std::vector<std::string>{"abcd", "efg\u2026"}));
  EXPECT_EQ(wrap("", 4, 2), (std::vector<std::string>{""}));
}

TEST(Text, ReadsTimesWithTheirUnits) {
  const struct {
    const char* text;
    int64_t seconds;  // 0: refused
  } rows[] = {{"90", 90}, {"30s", 30}, {"15m", 900}, {"2h", 7200}, {"7d", 604800}, {"", 0}, {"0s", 0}, {"-1h", 0}, {"1w", 0}, {"h", 0}, {"1h ", 0}};
  for (const auto& row : rows) EXPECT_EQ(parse_seconds(row.text).value_or(0), row.seconds) << row.text;
}

TEST(Top, SumsByApplicationAndNameWithNearestRankPercentiles) {
  ActionSums sums;
  for (int i = 1; i <= 100; i++) sums.add({i, 0, 0, "Shop", "cart", i, 10, 0, 0, i - 10, 200, i > 97});
  sums.add({101, 0, 0, "Other", "cart", 20000, 0, 5000, 10000, 5000, 200, false});
  auto sorted = sums.sorted();
  ASSERT_EQ(sorted.size(), 2u);
  EXPECT_EQ(sorted[0].application, "Other") << "most time first";
  EXPECT_EQ(sorted[1].errors, 3);
  EXPECT_EQ(sorted[1].total_ms, 5050);
  EXPECT_EQ(percentile(sorted[1].durations_ms, 50), 50);
  EXPECT_EQ(percentile(sorted[1].durations_ms, 95), 95);
  EXPECT_EQ(percentile({7}, 95), 7);
  EXPECT_EQ(percentile({1, 2, 3}, 50), 2);
  EXPECT_EQ(percentile({3, 1}, 50), 1);
  EXPECT_EQ(percentile({}, 50), 0);
  EXPECT_EQ(top_text(sorted, 0),
            "COUNT  ERRORS       P50       P95   DB  CACHE  EXT  CODE  APPLICATION  ACTION\n"
            "    1       0  20000 ms  20000 ms   0%    25%  50%   25%  Other        cart\n"
            "  100       3     50 ms     95 ms  20%     0%   0%   80%  Shop         cart\n");
}

TEST(List, CutsNamesOnlyForATerminal) {
  ActionRow row{7, 0, 0, std::string(60, 'a'), std::string(200, 'n'), 120, 60, 0, 30, 30, 0, true};
  EXPECT_NE(action_table({row}, 0).find(row.name), std::string::npos);
  for (size_t width : {130, 200}) {
    std::string text = action_table({row}, width);
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
      EXPECT_LE(text_width(text.substr(at, text.find('\n', at) - at)), width);
    }
    EXPECT_NE(text.find("120 ms  50%     0%  25%   25%       -  ERROR\n"), std::string::npos) << text;
  }
  auto column = [](const std::string& line) { return text_width(line.substr(0, line.find("ERROR"))); };
  EXPECT_EQ(column(tail_line(row)), column(tail_header()));
}

namespace {

std::string node(int start, int end, const std::string& parameters, const std::string& children, const char* name = "",
                 const char* function = "f") {
  return "[" + std::to_string(start) + "," + std::to_string(end) + ",\"" + name + "\",\"\",1,\"C\",\"" + function + "\",{" + parameters +
         "},[" + children + "]]";
}

}  // namespace

TEST(Trace, PrintsTheTreeWithSqlStackPlanAndCallee) {
  std::string sql = R"json("sql":"SELECT * FROM users","stacktrace":["PDO.query(/a.php:12)","(/a.php:3)"],)json"
                    R"json("explainPlan":{"dialect":"MySQL","keys":["id","table","key"],"values":[[1,"users",null],[2,"b","k"]]})json";
  std::string call = R"json("txId":"t","txData":{"id":"1|2","action":"api","trId":"beef","time":{"duration":15,"qu":0}})json";
  std::string query = node(3, 15, sql, "", "Database MySQL/users/SELECT", "query");
  std::string trace = node(0, 120, "", node(1, 90, R"json("partialtrace":["C.f(\/shop.php:9)"])json", query) + "," +
                                           node(100, 118, call, "", "External/http://b/curl_exec"));
  auto nodes = read_trace(trace);
  ASSERT_TRUE(nodes);
  EXPECT_EQ(trace_text(*nodes, 100),
            "      0     120  C::f\n"
            "      1      89    C::f\n"
            "                     at      C.f(/shop.php:9)\n"
            "      3      12      Database MySQL/users/SELECT  (C::query)\n"
            "                       SQL     SELECT * FROM users\n"
            "                       stack   PDO.query(/a.php:12)\n"
            "                               (/a.php:3)\n"
            "                       plan    id=1  table=users\n"
            "                               id=2  table=b  key=k\n"
            "    100      18    External/http://b/curl_exec  (C::f)\n"
            "                     callee  api, 15 ms\n");
  Action action;
  action.trace = trace;
  EXPECT_EQ(called_tracer_ids(action), std::vector<std::string>{"beef"});
}

TEST(Trace, AcceptsWhatAgentsReallyWrite) {
  const struct {
    std::string in_json, read;
  } rows[] = {
      {"a\x01\x1f"s + "b\nc", "a\x01\x1f"s + "b\nc"},  // control bytes as they are
      {"\\u00e9\\\"\\\\ \\/", "\u00e9\"\\ /"},
      {"\\ud83d\\ude00", "\U0001F600"},
      {"\\ud83d x \\ude00", "\uFFFD x \uFFFD"},  // a callee's broken halves
      {"\xff", "\uFFFD"},
      {"\\\\\" ", ""},  // the string ends before the blank: no trace
  };
  for (const auto& row : rows) {
    auto nodes = read_trace(node(0, 1, "\"sql\":\"" + row.in_json + "\"", ""));
    EXPECT_EQ(nodes ? *(*nodes)[0].sql : "", row.read) << row.in_json;
  }
}

TEST(Trace, RefusesWhatIsNoTrace) {
  for (const char* text : {"", "null", "[]", "[0,1]", R"([0,1,"","",1,"","f",{},[7]])", R"([0,"1","","",1,"","f",{},[]])",
                           R"([0,1,"","",1,"","f",[],[]])", R"([0,1,"","",1,"","f",{},[])"}) {
    EXPECT_FALSE(read_trace(text)) << text;
  }
}

TEST(Trace, BearsCallsNestedAsDeepAsAScriptCanGo) {
  std::string text, end;
  for (int i = 0; i < 50000; i++) text += "[0,1,\"\",\"\",1,\"\",\"f\",{},[", end += "]]";
  auto nodes = read_trace(text + end);
  ASSERT_TRUE(nodes);
  EXPECT_EQ(nodes->back().level, 49999u);
  std::string printed = trace_text(*nodes, 100);
  EXPECT_NE(printed.find("(49999) f\n"), std::string::npos);
  StoredAction shown{{}, {}};
  shown.action.trace = text + end;
  EXPECT_TRUE(action_json(shown, {})["trace"].is_string()) << "too deep for whoever parses the output";
}

TEST(ActionPage, GroupsIdenticalStatements) {
  auto groups = group_statements({
      {5, "MySQL", "SELECT 1", "", ""},
      {2, "PDO", "SELECT 1", "", ""},
      {9, "MySQL", "SELECT 1", "[\"PDO.query(/a b.php:12)\",\"main(/x.php:1)\"]", "{}"},
      {7, "MySQL", "SELECT 1", "[\"other(/c.php:1)\"]", ""},
      {30, "MySQL", "SELECT 2", "", ""},
  });
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[0].statement, "SELECT 2") << "most time first";
  EXPECT_EQ(groups[1].count, 3);
  EXPECT_EQ(groups[1].total_ms, 21);
  EXPECT_EQ(groups[1].slowest_ms, 9);
  EXPECT_EQ(groups[1].place, "/a b.php:12") << "the line of the slowest";
  EXPECT_EQ(groups[1].plan, "{}");
  EXPECT_EQ(groups[2].vendor, "PDO");
}

TEST(ActionPage, FitsIntoItsColumnsAndEscapesEverything) {
  std::string nasty = "\x1b]0;x\x07" + std::string(300, 'w') + " \xff";
  std::string item = std::to_string(nasty.size()) + ":" + nasty;
  std::string more = record(0x27, "1:1" + item + item) + record(0x29, "http\n" + nasty + "\n\n5") + record(0x29, "Redis\n\n" + nasty + "\n5") +
                     record(0x2B, "1\n1\n" + nasty) + record(0x2A, "1\n500\n" + nasty + "\n" + nasty + "\n" + nasty) +
                     record(0x24, nasty + ": " + nasty) + record(0x23, nasty + ": " + nasty) + record(0x77, nasty) + record(0x25, nasty) +
                     record(0x21, nasty) + record(0x26, nasty) + record(0x2D, nasty + "\n1\n\nm\n?q\n[]");
  auto action = read_action(action_body(nasty, nasty, 5, more));
  ASSERT_TRUE(action);
  StoredAction shown{{1, 0, 0, nasty, nasty}, *action};
  std::string page = action_text(shown, {}, 100);
  for (size_t at = 0; at < page.size(); at = page.find('\n', at) + 1) {
    std::string line = page.substr(at, page.find('\n', at) - at);
    EXPECT_TRUE(at == 0 || text_width(line) <= 100) << line;  // the title has the whole name
    EXPECT_EQ(printable(line), line);
  }
  Json value = Json::parse(json_text(action_json(shown, {}), true));
  EXPECT_EQ(value["statements"][0]["statement"], valid_utf8(nasty));
  EXPECT_EQ(value["unknown"][0]["type"], 0x77);
  EXPECT_EQ(value["error"]["class"], valid_utf8(nasty));
}

TEST(ActionPage, TellsCallerFromCallee) {
  auto stored = [](int64_t id, const char* tracer_id, const char* called) {
    StoredAction action{{}, {}};
    action.row.id = id;
    action.action.tracer_id = tracer_id;
    action.action.trace = node(0, 9, called ? R"("txId":"t","txData":{"trId":")" + std::string(called) + "\"}" : "", "");
    return action;
  };
  StoredAction shown = stored(1, "mine", "theirs");
  std::vector<StoredAction> others = {stored(2, "theirs", nullptr), stored(3, "above", "mine"), stored(4, "beside", "another")};
  auto related = relate(shown, others);
  ASSERT_EQ(related.size(), 3u);
  EXPECT_EQ(related[0].relation, Relation::callee);
  EXPECT_EQ(related[1].relation, Relation::caller);
  EXPECT_EQ(related[2].relation, Relation::same_transaction);
}

TEST(Profile, PrintsThreadsWithDepthAndTimes) {
  ProfilePrinter printer;
  std::string out;
  const struct {
    int64_t at_ms, thread;
    bool enter;
    const char *kind, *name;
  } events[] = {
      {1000, 1, true, "action", "Web"}, {1001, 1, true, "function", "main"},  {1002, 1, true, "function", "exits"},
      {1009, 1, false, "action", "ok"}, {1010, 1, false, "function", "late"}, {500, 2, true, "function", "f\x1b"},
  };
  for (const auto& event : events) out += printer.add({"Shop", event.at_ms, event.thread, event.enter, event.kind, event.name});
  EXPECT_EQ(out,
            "Thread 1  (ms from its first event)\n"
            "         0  > action Web\n"
            "         1    > main\n"
            "         2      > exits\n"
            "         9  < action ok  9 ms\n"
            "        10  < late\n"
            "\n"
            "Thread 2  (ms from its first event)\n"
            "         0  > f\\x1b\n");
  EXPECT_EQ(printer.events(), 6);
}
