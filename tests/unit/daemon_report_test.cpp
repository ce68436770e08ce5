// What the commands print: harmless texts, tables, sums, traces, profiles, JSON.
#include "daemon_records.h"
#include "facts/plan.h"
#include "print/report.h"
#include "print/report_sums.h"
#include "base/text.h"
#include "base/clock.h"

#include <nlohmann/json.hpp>
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
      {"a\u061cb\u200bc\ufeff\U000e0041", "a\\u061cb\\u200bc\\ufeff\\U000e0041"},
      {"\xff\xc3(\xe2\x82", "\\xff\\xc3(\\xe2\\x82"},
      // overlong, surrogate, too large
      {"\xe0\x80\xaf\xed\xa0\x80\xf4\x90\x80\x80", "\\xe0\\x80\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
  };
  for (const auto& row : rows) EXPECT_EQ(printable(row.text), row.printed);
  EXPECT_EQ(valid_utf8("a\xff\u00e9\xe2\x82"), "a\uFFFD\u00e9\uFFFD\uFFFD");
}

TEST(Text, IsCutAndWrappedByColumnsNotBytes) {
  EXPECT_EQ(cut("\u00e9\u00e9\u00e9\u00e9", 3), "\u00e9\u00e9\u2026");
  EXPECT_EQ(cut_middle("\u00e91234567\u00e9", 6), "\u00e912\u20267\u00e9");
  EXPECT_EQ(cut_middle("abc", 1), "\u2026");
  EXPECT_EQ(wrap(" one two threefour", 8, 9), (std::vector<std::string>{"one two", "threefou", "r"}));
  EXPECT_EQ(wrap("abcdefghij", 4, 2), (std::vector<std::string>{"abcd", "efg\u2026"}));
  EXPECT_EQ(wrap("", 4, 2), (std::vector<std::string>{""}));
  EXPECT_EQ(text_width("\u65e5\u672c \U0001F600 e\u0301"), 9u);
  EXPECT_EQ(cut("\u65e5\u672c\u65e5", 4), "\u65e5\u2026");
  EXPECT_EQ(cut_middle("\u65e5\u672c\u65e5\u672c", 6), "\u65e5\u2026\u672c");
  EXPECT_EQ(wrap("\u65e5\u672c\u65e5", 5, 9), (std::vector<std::string>{"\u65e5\u672c", "\u65e5"}));
}

TEST(JsonText, IsAsciiWhateverItHolds) {
  std::string text = json_text(Json("\u009b31m\x7f \u202e \xff \U000e0041"), false);
  EXPECT_EQ(text, "\"\\u009b31m\\u007f \\u202e \\ufffd \\udb40\\udc41\"\n");
}

TEST(Text, ReadsTimesWithTheirUnits) {
  const struct {
    const char* text;
    int64_t seconds;  // 0: refused
  } rows[] = {{"90", 90}, {"30s", 30}, {"15m", 900}, {"2h", 7200}, {"7d", 604800},
              {"", 0}, {"0s", 0}, {"-1h", 0}, {"1w", 0}, {"h", 0}, {"1h ", 0}};
  for (const auto& row : rows) EXPECT_EQ(parse_seconds(row.text).value_or(0), row.seconds) << row.text;
}

TEST(Text, TellsNoShareThatCannotBe) {
  EXPECT_EQ(percent(1, 3) + percent(2, 3) + percent(0, 0), "33%67%-");
  EXPECT_EQ(percent(INT64_MAX, 3) + percent(INT64_MAX / 2, INT64_MAX) + percent(-5, 3), "999%50%0%");
}

TEST(List, FitsByShorteningNamesInTheMiddle) {
  const std::string long_name = "WebAction/" + std::string(200, 'n') + "/cart";
  ActionRow row{7, 0, 0, "Shop " + std::string(60, 'a'), long_name, 120, 60, 0, 30, 30, 500, true};
  for (size_t width : {80, 100, 200}) {
    std::string text = action_table({row}, width, 0);
    EXPECT_EQ(text_width(text.substr(text.find('\n') + 1)), width + 1) << text;
    EXPECT_NE(text.find("t  120 ms  50%    -     0%  25%   25%  500 ERROR\n"), std::string::npos) << text;
    EXPECT_EQ(text_width(tail_line(row, width, 0)), width + 1) << tail_line(row, width, 0);
  }
  for (const std::string& whole : {action_table({row}, SIZE_MAX, 0), tail_line(row, SIZE_MAX, 0)}) {
    EXPECT_NE(whole.find("  " + row.application + "  " + long_name + "  "), std::string::npos) << whole;
  }
  row.application = "Shop";
  std::string text = action_table({row}, 100, 0);
  EXPECT_NE(text.find("  Shop         WebAction/nn"), std::string::npos) << "short names are whole: " << text;
  EXPECT_EQ(text.find(local_time(0).substr(5, 5)), std::string::npos) << "a list of today tells no date";
  EXPECT_NE(action_table({row}, 100, 366LL * 86400000).find(local_time(0).substr(5, 11)), std::string::npos);
}

namespace {

// A trace of one call with these members among its details.
std::string trace_with(const std::string& members) { return R"([0,1,"","",1,"C","f",{)" + members + "},[]]"; }

size_t count(const std::string& page, const std::string& text) {
  size_t found = 0;
  for (size_t at = page.find(text); at != std::string::npos; at = page.find(text, at + 1)) found++;
  return found;
}

}  // namespace

// Traces and their texts: data/.
TEST(Trace, IsToldInFullOrRunsOfTheSameInOneLine) {
  for (bool full : {true, false}) {
    const std::string name = full ? "trace_full" : "trace_brief";
    auto nodes = read_trace(data(name + ".json"));
    ASSERT_TRUE(nodes);
    EXPECT_EQ(trace_text(*nodes, 100, full), data(name + ".txt"));
  }
  Action action;
  action.trace = data("trace_full.json");
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
      {"\\\\\" ", ""},  // the string ends before the space: no trace
  };
  for (const auto& row : rows) {
    auto nodes = read_trace(trace_with("\"sql\":\"" + row.in_json + "\""));
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
  EXPECT_TRUE(start.ends_with("  ... the rest, each 1 ms at most: --full\n")) << start;
  StoredAction shown{{}, {}};
  shown.action.trace = text + end;
  EXPECT_TRUE(action_json(shown, {})["trace"].is_string()) << "too deep for whoever parses the output";
}

TEST(Trace, LeavesOutTheShortestOfManyCallsWhereverTheyStand) {
  std::string text = R"([0,900,"","",1,"","main",{},[)";
  for (int i = 0; i < 300; i++) {
    std::string begin = std::to_string(i), end = std::to_string(i + 1);
    text += "[" + begin + "," + end + R"(,"","",1,"","fast)" + begin + R"(",{},[]],)";
  }
  auto nodes = read_trace(text + R"([300,900,"","",1,"","slow",{},[[300,890,"","",1,"","query",{},[]]]]]])");
  ASSERT_TRUE(nodes);
  std::string brief = trace_text(*nodes, 100, false);
  const char* end = "fast196\n     300     600    slow\n     300     590      query\n  ... the rest, each 1 ms at most: --full\n";
  EXPECT_TRUE(brief.ends_with(end)) << brief;
}

TEST(ActionPage, FitsIntoItsColumnsAndEscapesEverything) {
  std::string nasty = "\x1b]0;x\x07" + std::string(300, 'w') + " \xff";
  std::string item = std::to_string(nasty.size()) + ":" + nasty;
  std::string more = record(0x27, "1:1" + item + item) + record(0x29, "http\n" + nasty + "\n\n5") +
                     record(0x29, "Redis\n\n" + nasty + "\n5") + record(0x2B, "1\n1\n" + nasty) +
                     record(0x2A, "1\n500\n" + nasty + "\n" + nasty + "\n" + nasty) + record(0x2D, nasty + "\n1\n\nm\n?q\n[]");
  for (int type : {0x23, 0x24}) more += record(type, nasty + ": " + nasty);
  for (int type : {0x21, 0x25, 0x26, 0x77}) more += record(type, nasty);
  auto action = read_action(action_body(nasty, nasty, 5, more));
  ASSERT_TRUE(action);
  StoredAction shown{{1, 0, 0, nasty, nasty}, *action};
  for (bool full : {false, true}) {
    std::string page = action_text(shown, {}, 100, full);
    for (size_t at = 0; at < page.size(); at = page.find('\n', at) + 1) {
      std::string line = page.substr(at, page.find('\n', at) - at);
      EXPECT_TRUE(at == 0 || text_width(line) <= 100) << line;  // the title has the full name
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
  for (int i = 0; i < 40; i++) {
    shown.action.statements.push_back({i, "MySQL", "SELECT a FROM t1 WHERE id = " + std::to_string(i), "", plan + "}"});
  }
  for (int i = 0; i < 3; i++) shown.action.services.push_back({"http", 10 + i, "", ""});
  shown.action.error = ErrorInfo{500, "E", "one\ntwo", ""};
  shown.action.details = {{"httpStatus", "500"}, {"agent", "x"}};
  shown.action.duration_ms = 1000;
  shown.action.components = {{"PHP/NULL/small", 10, 10}, {"PHP/NULL/large", 11, 11}};
  std::string page = action_text(shown, {}, 100, false);
  for (const char* told : {"40 times, 780 ms together, slowest 39 ms\n                 SELECT a FROM t1 WHERE id = ?\n",
                           "slowest        SELECT a FROM t1 WHERE id = 39\n", "step 11\n                 ... and 2 more rows\n",
                           "  33 ms          http\n                 3 times, slowest 12 ms\n",
                           "message        one\n                 two\n"}) {
    EXPECT_EQ(count(page, told), 1u) << page;
  }
  EXPECT_EQ(count(page, "id = "), 2u);
  EXPECT_EQ(count(page, "PHP/NULL/small") + count(page, "httpStatus"), 0u);
  EXPECT_EQ(count(page, "PHP/NULL/large") + count(page, "agent"), 2u);
  std::string full = action_text(shown, {}, 100, true);
  EXPECT_EQ(count(full, "PHP/NULL/small") + count(full, "httpStatus"), 2u);
  EXPECT_EQ(count(full, "id = "), 40u);
  EXPECT_EQ(count(full, "step 13"), 40u);
  EXPECT_EQ(count(full, "..."), 0u);
}

TEST(ActionPage, SaysWhyThereIsNoTraceLineOrPlan) {
  const std::string stack = "[\"PDO.query(/a.php:7)\"]", trace = trace_with(""), plan = R"({"keys":["a"],"values":[["b"]]})";
  const struct {
    bool web;
    int64_t ms;
    Settings given;
    std::string trace, stack, plan;
    const char* told;
  } rows[] = {
      {false, 9000, {}, "", "", "", "none           command-line runs have no trace\n"},
      {true, 1999, {}, "", "", "", "faster than the trace threshold, 2000 ms, unless php.ini has another"},
      {true, 299, {{"zqs.action_tracer.action_threshold", "300"}}, "", "", "", "faster than the trace threshold, 300 ms (zqs.action_tracer.action_threshold)\n"},
      {true, 2000, {}, "", "", "", "its process traced"},
      {true, 1, {}, "", "", "", "no lines       statements have their stacks and plans only in actions with a trace\n"},
      {true, 9000, {}, trace, "", "", "no lines       only statements that take zqs.action_tracer.slow_sql_threshold"},
      {true, 9000, {}, trace, stack, "", "no plans       only with zqs.action_tracer.explain_enabled = 1"},
  };
  for (const auto& row : rows) {
    StoredAction shown{{}, {}};
    if (row.web) shown.action.uri = "/";
    shown.action.duration_ms = row.ms;
    shown.action.trace = row.trace;
    shown.action.statements = {{9, "MySQL", "SELECT 1", row.stack, row.plan}};
    std::string page = action_text(shown, {}, 130, false, row.given);
    EXPECT_NE(page.find(row.told), std::string::npos) << row.told << page;
  }
  StoredAction shown{{}, {}};
  shown.action.trace = trace;
  shown.action.statements = {{9, "MySQL", "SELECT 1", stack, plan}};
  EXPECT_EQ(action_text(shown, {}, 130, false).find("  no "), std::string::npos);
}

TEST(ActionPage, ShowsTheSlowestOfManyCacheCalls) {
  StoredAction shown{{}, {}};
  for (int i = 0; i < 12; i++) shown.action.caches.push_back({"Redis", "", "GET", i == 11 ? 77 : 1});
  EXPECT_EQ(count(action_text(shown, {}, 100, false), "77 ms"), 1u);
}

TEST(ActionPage, TellsNoQueueTimeThatCannotBeTrue) {
  const struct {
    int64_t received_ms, queued_ms;
    const char* told;
  } rows[] = {{1100000, 5, "5 ms"}, {1100000, 99900, "99.9 s"}, {1100000, 100001, "not"}, {9000000, 600001, "not"},
              {9000000, -1, "not"}, {900000, 5000, "5000 ms"}};  // the last is from before the start
  for (const auto& row : rows) {
    ActionRow action;
    action.received_ms = row.received_ms;
    EXPECT_TRUE(queue_text(action, row.queued_ms, 1000000).starts_with(row.told)) << row.queued_ms;
  }
  StoredAction shown{{}, {}};
  shown.action.block_ms = 700000;
  shown.action.exact.emplace().waited_us = 250499;
  EXPECT_NE(action_text(shown, {}, 100, false).find("queued before  250 ms\n"), std::string::npos) << "the time of day's figure";
}

TEST(ActionPage, TellsCallerFromCallee) {
  auto stored = [](const char* tracer_id, const std::string& called) {
    StoredAction action{{}, {}};
    action.action.tracer_id = tracer_id;
    action.action.trace = trace_with(R"("txId":"t","txData":{"trId":")" + called + "\"}");
    return action;
  };
  StoredAction shown = stored("mine", "theirs");
  std::vector<Relation> found;
  for (const StoredAction& other : {stored("theirs", "none"), stored("above", "mine"), stored("beside", "another")}) {
    found.push_back(relate(shown, called_tracer_ids(shown.action), other).relation);
  }
  EXPECT_EQ(found, (std::vector{Relation::callee, Relation::caller, Relation::same_transaction}));
}

// What each would take by the letter: gigabytes, or minutes.
TEST(ForgedPackets, CostNoMoreThanTheirSize) {
  std::string keys = "1", rows = "[]";
  for (int i = 0; i < 20000; i++) keys += ",1", rows += ",[]";
  auto plan = parse_agent_json("{\"keys\":[" + keys + "],\"values\":[" + rows + "]}");
  ASSERT_TRUE(plan);
  EXPECT_EQ(plan_lines(*plan, 100, 3).back(), "... and 19998 more rows");

  auto action = read_action(std::string(16 << 20, '\0'));
  ASSERT_TRUE(action);
  StoredAction shown{{}, *action};
  EXPECT_EQ(action->unknown.size() + static_cast<size_t>(action->unread), size_t{4} << 20);
  EXPECT_LT(action_text(shown, {}, 100, false).size(), 5000u);

  shown.action.trace = "[" + std::string(size_t{6} << 20, '[');
  EXPECT_NE(action_text(shown, {}, 100, false).find("unreadable     [[["), std::string::npos);
  EXPECT_EQ(read_action(action_body("a", "b", 1, record(0x27, "19:92233720368547758071:x1:y")))->statements[0].duration_ms, 1000000000000);

  auto lines = wrap(std::string(size_t{8} << 20, 'x'), 80, SIZE_MAX);
  EXPECT_EQ(lines.size(), ((size_t{8} << 20) + 79) / 80);
}

TEST(Sums, TellSharesOfTheWholeTheMachineAndWhatIsNew) {
  SumList list;
  list.question.key = SumKey::host;
  list.answer.rows.resize(2);
  list.answer.rows[0].sums.total_us = 300000, list.answer.rows[1].sums.total_us = 100000;
  list.answer.all.total_us = 1000000;  // with those beyond -n
  list.machine = {{0, "web1", 1.5, int64_t{4} << 30, int64_t{1} << 30, {{"www", 2, 3, 5, 0.5, 7}}}};
  std::string text = sums_text(list, 120, false, 0);
  for (const char* told : {" 30% ", " 10% ", "web1: load 1.50, memory 1.0 of 4.0 GiB available\n", "www    2.0     5   3.0             7\n"}) {
    EXPECT_NE(text.find(told), std::string::npos) << told << text;
  }
  list.question.key = SumKey::error;
  list.releases = {{60000, "r2", ""}};
  list.answer.rows[0].key.first_ms = 60000, list.answer.rows[1].key.first_ms = 59999;
  text = sums_text(list, 120, false, 61000);
  EXPECT_EQ(text.find(", new since r2"), text.rfind(", new since r2")) << text;
  EXPECT_NE(text.find(", new since r2"), std::string::npos) << text;
}

TEST(Profile, PrintsThreadsWithDepthAndTimes) {
  ProfilePrinter printer;
  std::string out;
  const ProfileEvent events[] = {
      {"Shop", 1000, 1, true, "action", "Web"}, {"Shop", 1001, 1, true, "function", "main"},
      {"Shop", 1002, 1, true, "function", "exits"}, {"Shop", 1009, 1, false, "action", "ok"},
      {"Shop", 1010, 1, false, "function", "late"}, {"Shop", 500, 2, true, "function", "f\x1b"},
  };
  for (const ProfileEvent& event : events) out += printer.add(event);
  EXPECT_EQ(out, data("profile.txt"));
  EXPECT_EQ(printer.events(), 6);
}
