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
  EXPECT_EQ(cut_middle("\u00e9\u00e9\u00e9", 3), "\u00e9\u00e9\u00e9");
  EXPECT_EQ(cut_middle("\u00e91234567\u00e9", 6), "\u00e912\u20267\u00e9");
  EXPECT_EQ(cut_middle("abc", 1), "\u2026");
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

TEST(Text, WritesDurationsForPeople) {
  const struct {
    int64_t ms;
    const char* text;
  } rows[] = {{0, "0 ms"}, {9999, "9999 ms"}, {10000, "10.0 s"}, {12345, "12.3 s"}, {59950, "60.0 s"}, {999949, "999.9 s"}, {1234567, "1235 s"}};
  for (const auto& row : rows) EXPECT_EQ(duration_text(row.ms), row.text);
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
  EXPECT_EQ(top_text(sorted, 100),
            "COUNT  ERRORS     P50     P95   DB  CACHE  EXT  CODE  APPLICATION  ACTION\n"
            "    1       0  20.0 s  20.0 s   0%    25%  50%   25%  Other        cart\n"
            "  100       3   50 ms   95 ms  20%     0%   0%   80%  Shop         cart\n");
}

TEST(List, FitsByShorteningNamesInTheMiddle) {
  ActionRow row{7, 0, 0, "Shop " + std::string(60, 'a'), "WebAction/" + std::string(200, 'n') + "/cart", 120, 60, 0, 30, 30, 500, true};
  for (size_t width : {100, 130, 200}) {
    std::string text = action_table({row}, width, 0);
    EXPECT_EQ(text_width(text.substr(text.find('\n') + 1)), width + 1) << text;
    EXPECT_NE(text.find("n/cart  120 ms  50%     0%  25%   25%  500 ERROR\n"), std::string::npos) << text;
  }
  row.application = "Shop";
  std::string text = action_table({row}, 100, 0);
  EXPECT_NE(text.find("  Shop         WebAction/nn"), std::string::npos) << "short names are whole: " << text;
  EXPECT_EQ(text.find(local_time(0).substr(5, 5)), std::string::npos) << "a list of today tells no date";
  EXPECT_NE(action_table({row}, 100, 366LL * 86400000).find(local_time(0).substr(5, 11)), std::string::npos);
  auto column = [](const std::string& line, const char* word) { return text_width(line.substr(0, line.find(word))); };
  EXPECT_EQ(column(tail_line(row), "500 ERROR"), column(tail_header(), "STATUS"));
}

namespace {

std::string node(int start, int end, const std::string& parameters, const std::string& children, const char* name = "",
                 const char* function = "f") {
  return "[" + std::to_string(start) + "," + std::to_string(end) + ",\"" + name + "\",\"\",1,\"C\",\"" + function + "\",{" + parameters +
         "},[" + children + "]]";
}

}  // namespace

TEST(Trace, PrintsTheTreeWithSqlStackPlanAndCallee) {
  std::string sql = R"json("sql":"SELECT * FROM users WHERE id = 3","stacktrace":["PDO.query(/a.php:12)","(/a.php:3)"],)json"
                    R"json("explainPlan":{"dialect":"MySQL","keys":["id","table","key"],"values":[[1,"users",null],[2,"b","k"]]})json";
  std::string call = R"json("txId":"t","txData":{"id":"1|2","action":"api","trId":"beef","time":{"duration":15,"qu":0}})json";
  std::string query = node(3, 15, sql, "", "Database MySQL/users/SELECT", "query");
  std::string trace = node(0, 120, "", node(1, 90, R"json("partialtrace":["C.f(\/shop.php:9)"])json", query) + "," +
                                           node(100, 118, call, "", "External/http://b/curl_exec"));
  auto nodes = read_trace(trace);
  ASSERT_TRUE(nodes);
  EXPECT_EQ(trace_text(*nodes, 100, true),
            "   start   taken\n"
            "       0     120  C::f\n"
            "       1      89    C::f  at /shop.php:9\n"
            "       3      12      Database MySQL/users/SELECT  (C::query)\n"
            "                        SQL     SELECT * FROM users WHERE id = 3\n"
            "                        stack   PDO.query(/a.php:12)\n"
            "                                (/a.php:3)\n"
            "                        plan    id  table  key\n"
            "                                1   users\n"
            "                                2   b      k\n"
            "     100      18    External/http://b/curl_exec  (C::f)\n"
            "                      callee  api, 15 ms\n");
  Action action;
  action.trace = trace;
  EXPECT_EQ(called_tracer_ids(action), std::vector<std::string>{"beef"});
}

TEST(Trace, TellsRunsOfTheSameInOneLine) {
  auto query = [](int start, int end, int id, const char* table = "t1") {
    std::string sql = "\"sql\":\"SELECT a FROM " + std::string(table) + " WHERE id = " + std::to_string(id) + "\",\"stacktrace\":[\"PDO.query(/a.php:1)\"]";
    return node(start, end, sql, "", "Database MySQL/t/SELECT", "query");
  };
  auto call = [](int start, int end, const std::string& children, const char* function, int line = 7) {
    return node(start, end, "\"partialtrace\":[\"C.f(/p.php:" + std::to_string(line) + ")\"]", children, "", function);
  };
  std::string children = call(0, 9, query(0, 4, 1) + "," + query(4, 8, 2), "stars") + "," + call(10, 40, query(11, 31, 3), "stars") + "," +
                         call(40, 41, query(40, 41, 4, "t2"), "stars", 8) + "," + call(41, 42, query(41, 42, 5, "t2"), "stars", 9) + "," +
                         call(50, 51, "", "stars") + "," + call(60, 61, query(60, 61, 6), "stars");
  auto nodes = read_trace(call(0, 100, children, "rows"));
  ASSERT_TRUE(nodes);
  EXPECT_EQ(trace_text(*nodes, 100, false),
            "   start   taken\n"
            "       0     100  C::rows  at /p.php:7\n"
            "       0      39    C::stars  x 2, slowest 30 ms  at /p.php:7\n"
            "       0      28      Database MySQL/t/SELECT  (C::query)  x 3, slowest 20 ms\n"
            "                        SQL     SELECT a FROM t1 WHERE id = ?\n"
            "      40       2    C::stars  x 2, slowest 1 ms\n"  // from two lines
            "      40       2      Database MySQL/t/SELECT  (C::query)  x 2, slowest 1 ms\n"
            "                        SQL     SELECT a FROM t2 WHERE id = ?\n"
            "      50       1    C::stars  at /p.php:7\n"
            "      60       1    C::stars  at /p.php:7\n"
            "      60       1      Database MySQL/t/SELECT  (C::query)\n"
            "                        SQL     SELECT a FROM t1 WHERE id = 6\n");
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
  EXPECT_NE(trace_text(*nodes, 100, true).find("(49999) f\n"), std::string::npos);
  std::string start = trace_text(*nodes, 100, false);
  EXPECT_LT(start.size(), 20000u);
  EXPECT_TRUE(start.ends_with("  ... the rest: --full\n")) << start;
  StoredAction shown{{}, {}};
  shown.action.trace = text + end;
  EXPECT_TRUE(action_json(shown, {})["trace"].is_string()) << "too deep for whoever parses the output";
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
  for (bool full : {false, true}) {
    std::string page = action_text(shown, {}, 100, full);
    for (size_t at = 0; at < page.size(); at = page.find('\n', at) + 1) {
      std::string line = page.substr(at, page.find('\n', at) - at);
      EXPECT_TRUE(at == 0 || text_width(line) <= 100) << line;  // the title has the whole name
      EXPECT_EQ(printable(line), line);
    }
  }
  Json value = Json::parse(json_text(action_json(shown, {}), true));
  EXPECT_EQ(value["statements"][0]["statement"], valid_utf8(nasty));
  EXPECT_EQ(value["unknown"][0]["type"], 0x77);
  EXPECT_EQ(value["error"]["class"], valid_utf8(nasty));
}

TEST(ActionPage, LeavesOutWhatIsRepeatedUnlessAllIsWanted) {
  StoredAction shown{{}, {}};
  std::string plan = R"({"keys":["QUERY PLAN"],"values":[)";
  for (int i = 0; i < 14; i++) plan += "[\"step " + std::to_string(i) + "\"],";
  plan.back() = ']';
  for (int i = 0; i < 40; i++) shown.action.statements.push_back({i, "MySQL", "SELECT a FROM t1 WHERE id = " + std::to_string(i), "", plan + "}"});
  for (int i = 0; i < 3; i++) shown.action.services.push_back({"http", 10 + i, "", ""});
  shown.action.error = ErrorInfo{500, "E", "one\ntwo", ""};
  shown.action.details = {{"httpStatus", "500"}, {"agent", "x"}};
  shown.action.duration_ms = 1000;
  shown.action.components = {{"PHP/NULL/small", 10, 10}, {"PHP/NULL/large", 11, 11}};
  auto count = [](const std::string& page, const std::string& text) {
    size_t found = 0;
    for (size_t at = page.find(text); at != std::string::npos; at = page.find(text, at + 1)) found++;
    return found;
  };
  std::string page = action_text(shown, {}, 100, false);
  EXPECT_NE(page.find("40 times, 780 ms together, slowest 39 ms\n                 SELECT a FROM t1 WHERE id = ?\n"), std::string::npos) << page;
  EXPECT_NE(page.find("slowest        SELECT a FROM t1 WHERE id = 39\n"), std::string::npos) << page;
  EXPECT_NE(page.find("step 11\n                 ... and 2 more rows\n"), std::string::npos) << page;
  EXPECT_NE(page.find("  33 ms          http\n                 3 times, slowest 12 ms\n"), std::string::npos) << page;
  EXPECT_NE(page.find("message        one\n                 two\n"), std::string::npos) << page;
  EXPECT_EQ(count(page, "id = "), 2u);
  for (const auto& [hidden, told] : {std::pair("PHP/NULL/small", "PHP/NULL/large"), std::pair("httpStatus", "agent")}) {
    EXPECT_EQ(count(page, hidden), 0u);
    EXPECT_EQ(count(page, told), 1u);
  }
  std::string full = action_text(shown, {}, 100, true);
  EXPECT_EQ(count(full, "PHP/NULL/small") + count(full, "httpStatus"), 2u);
  EXPECT_EQ(count(full, "id = "), 40u);
  EXPECT_EQ(count(full, "step 13"), 40u);
  EXPECT_EQ(count(full, "..."), 0u);
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
