// Metric and thread-profile packets, decoded from bytes; their parts as programs get them.
#include "daemon_records.h"
#include "print/report.h"
#include "zqp_store_classes.h"

#include <nlohmann/json.hpp>
#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

TEST(Packet, SharesOutTheDurationOfAnAction) {
  const std::string elsewhere = record(0x16, number(200)) + record(0x17, "60\nMemcached") + record(0x17, "40\nRedis") +
                                record(0x18, number(150)) + record(0x24, "httpStatus: 503");
  auto action = read_action(action_body("Shop", "WebAction/cart", 500, elsewhere));
  ASSERT_TRUE(action);
  EXPECT_EQ(action->application + " " + action->name, "Shop WebAction/cart");
  const std::vector<int64_t> times_ms = {action->duration_ms, action->database_ms, action->cache_ms, action->external_ms,
                                         action->code_ms()};
  EXPECT_EQ(times_ms, (std::vector<int64_t>{500, 200, 100, 150, 50}));
  EXPECT_EQ(action->status(), 503);
  EXPECT_EQ(read_action(action_body("a", "b", 10, record(0x16, number(20))))->code_ms(), 0) << "never negative";
}

// Records and what programs get of them: data/records.json. What cannot be understood is kept.
TEST(Packet, ReadsItsRecords) {
  const Json rows = Json::parse(data("records.json"));
  ASSERT_GT(rows.size(), 20u);
  for (const Json& row : rows) {
    auto action = read_action(action_body("Shop", "kept", 5, record(row["type"], row["body"].get<std::string>())));
    ASSERT_TRUE(action) << row;
    EXPECT_EQ(action->name, "kept");
    const Json shown = action_json({{}, *action}, {});
    Json expected = shown;
    expected["unknown"] = Json::array();
    expected.update(row["shows"]);
    EXPECT_EQ(shown, expected) << row["body"];
  }
  EXPECT_EQ(read_action(record(0x2A, "1\n500\nc\nm\n"))->status(), 500) << "of the error, as there is no detail with it";
}

TEST(Packet, TakesNoFigureOfWhichSumsCouldOverflow) {
  const std::string most = "\0\0\0\0\0\0\1\0"s, beyond = "\1\0\0\0\0\0\1\0"s;
  auto action = read_action(action_body("Shop", "cart", 5, record(0x60, record(0x01, most) + record(0x02, beyond))));
  ASSERT_TRUE(action && action->exact);
  EXPECT_EQ((std::pair{action->exact->duration_us, action->exact->database_us}), (std::pair{int64_t{1} << 48, int64_t{0}}));
}

TEST(Packet, PutsWholeFramesIntoTheirStacks) {
  const std::string trace = R"x([0,9,"","",1,"","a",{},[[1,2,"","",1,"K","f",{"stacktrace":["K","f"]},[]],[2,3,"","",1,"K","g",{"partialtrace":["g(/a:1)"]},[]]]])x";
  const std::string details = record(0x35, number(0) + "\1" "f\xfc") + record(0x35, number(1) + "\0K\xfc"s) + record(0x35, number(1) + "\7x") +
                              record(0x33, number(1) + "\5" "f\xfc") + record(0x33, number(2) + "\4g(/a\xfc:1)");
  auto action = read_action(action_body("Shop", "cart", 5, record(0x27, "1:10:1:x") + record(0x27, "1:10:1:y9:[\"f\",\"f\"]") +
                                        record(0x2A, "1\n500\nc\nm\n[\"K\"]") + record(0x25, trace) + record(0x60, details)));
  ASSERT_TRUE(action);
  EXPECT_EQ(action->statements[1].stack, R"(["f","fü"])");
  EXPECT_EQ(action->error->stack, R"(["Kü"])");
  const Json elements = Json::parse(trace_elements_json(*action));
  EXPECT_EQ(elements[1]["stack"].dump(), R"(["K","fü"])");
  EXPECT_EQ(elements[2]["place"], "/aü:1");
}

TEST(Packet, CountsSlowCallsOfStoresAsTheirTime) {
  const std::string trace = R"x([0,9,"","",1,"","a",{},[[1,2,"","",1,"RedisCluster","get",{},[]],[2,3,"","",1,"Cart","get",{},[]]]])x";
  const Json elements = Json::parse(trace_elements_json(*read_action(action_body("Shop", "cart", 9, record(0x25, trace)))));
  EXPECT_EQ(elements[1]["layer"], "cache");
  EXPECT_EQ(elements[2]["layer"], "code");
}

// What users look up is on the page for it, whoever adds to it.
TEST(Pages, NameEveryClassOfAStoreAndEveryKeyOfAnAction) {
  const std::string queries = data("../../../docs/queries.md"), commands = data("../../../docs/daemon.md");
  for (const std::string_view name : zq_store_classes) EXPECT_NE(queries.find("`" + std::string(name) + "`"), std::string::npos) << name;
  const Json action = action_json({{}, *read_action(action_body("Shop", "cart", 9))}, {});
  for (const auto& [key, value] : action.items()) EXPECT_NE(commands.find("`" + key + "`"), std::string::npos) << key;
}

TEST(Packet, ReadsTheLinesOfAThreadProfile) {
  auto packet = [](const std::string& line) { return record(17, "Shop") + record(14, "key") + record(44, line); };
  auto event = read_profile_event(packet("1234567 42 enter function Cart::add all"));
  ASSERT_TRUE(event);
  EXPECT_EQ(event->at_ms, 1234567);
  EXPECT_EQ(event->thread, 42);
  EXPECT_TRUE(event->enter);
  EXPECT_EQ(event->application + "|" + event->kind + "|" + event->name, "Shop|function|Cart::add all");
  EXPECT_FALSE(read_profile_event(packet("1 2 leave action ok"))->enter);
  for (const char* line : {"", "x 2 enter action Web", "1 x enter action Web", "1 2 jump action Web"}) {
    EXPECT_FALSE(read_profile_event(packet(line))) << line;
  }
  EXPECT_FALSE(read_profile_event(record(17, "Shop")));
}
