// Metric and thread-profile packets, decoded from bytes.
#include "daemon_records.h"
#include "packet.h"

#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

TEST(Packet, ReadsTheFiguresOfAnAction) {
  auto action = read_action(action_body("Shop", "WebAction/cart", 500,
                                        record(0x21, "/cart") + record(0x16, number(200)) + record(0x17, "60\nMemcached") +
                                            record(0x17, "40\nRedis") + record(0x18, number(150)) + record(0x24, "httpStatus: 503") +
                                            record(0x20, "tx") + record(0x26, "trace")));
  ASSERT_TRUE(action);
  EXPECT_EQ(action->application, "Shop");
  EXPECT_EQ(action->account_key, "account");
  EXPECT_EQ(action->name, "WebAction/cart");
  EXPECT_EQ(action->uri, "/cart");
  EXPECT_EQ(action->duration_ms, 500);
  EXPECT_EQ(action->database_ms, 200);
  EXPECT_EQ(action->cache_ms, 100);
  EXPECT_EQ(action->external_ms, 150);
  EXPECT_EQ(action->code_ms(), 50);
  EXPECT_EQ(action->block_ms, 7);
  EXPECT_EQ(action->cpu_ticks, 3);
  EXPECT_EQ(action->system_cpu_ticks, 900);
  EXPECT_EQ(action->status(), 503);
  EXPECT_EQ(action->transaction_id, "tx");
  EXPECT_EQ(action->tracer_id, "trace");
  EXPECT_TRUE(action->unknown.empty());
}

TEST(Packet, NeverReportsNegativeCodeTime) {
  EXPECT_EQ(read_action(action_body("a", "b", 10, record(0x16, number(20))))->code_ms(), 0);
}

TEST(Packet, ReadsSqlItemsByTheirLengths) {
  const struct {
    std::string body;
    const char *vendor, *statement, *stack, *plan;
    int ms;
  } rows[] = {
      {"2:124:test8:SELECT 1", "test", "SELECT 1", "", "", 12},
      {"1:00:0:", "", "", "", "", 0},
      {"3:1203:PDO3:a:b", "PDO", "a:b", "", "", 120},
      {"1:15:MySQL1:S3:[1]", "MySQL", "S", "[1]", "", 1},
      {"1:15:MySQL1:S2:{}", "MySQL", "S", "", "{}", 1},
      {"1:15:MySQL1:S3:[1]2:{}", "MySQL", "S", "[1]", "{}", 1},
  };
  for (const auto& row : rows) {
    auto action = read_action(record(0x27, row.body));
    ASSERT_EQ(action->statements.size(), 1u) << row.body;
    const SqlStatement& sql = action->statements[0];
    EXPECT_EQ(sql.duration_ms, row.ms) << row.body;
    EXPECT_EQ(sql.vendor, row.vendor) << row.body;
    EXPECT_EQ(sql.statement, row.statement) << row.body;
    EXPECT_EQ(sql.stack, row.stack) << row.body;
    EXPECT_EQ(sql.plan, row.plan) << row.body;
  }
}

TEST(Packet, KeepsWhatItCannotUnderstand) {
  const std::string records[] = {
      record(0x77, "from the future"), record(0x15, "abc"),           record(0x27, "1:11:a9:b"),        record(0x27, "-1:x"),
      record(0x27, "1:x1:a1:b"),       record(0x27, "1:11:a1:b:"),    record(0x29, "http\nname"), record(0x29, "http\nn\n\nx"),
      record(0x2B, "1\nx\nname"),      record(0x2A, "1\n200\nclass"), record(0x17, "x\nRedis"),   record(0x24, "no colon"),
      record(0x2D, "a\n1\n2\n3\n4"),   record(0x10, "application id"),
  };
  for (const std::string& bytes : records) {
    auto action = read_action(action_body("Shop", "kept", 5, bytes));
    ASSERT_TRUE(action) << bytes;
    ASSERT_EQ(action->unknown.size(), 1u) << bytes;
    EXPECT_EQ(action->unknown[0].type, static_cast<uint8_t>(bytes[0]));
    EXPECT_EQ(action->unknown[0].body, bytes.substr(4));
    EXPECT_EQ(action->name, "kept");
  }
}

TEST(Packet, ReadsCachesInTheirThreeLayouts) {
  auto action = read_action(record(0x29, "Memcached\n\nGET\n5") + record(0x29, "Redis\n\nHGET\n6") +
                            record(0x29, "MongoDB\nshop.orders\nFIND\n7") + record(0x29, "MongoDB\n" + std::string(119, 'c')));
  ASSERT_EQ(action->caches.size(), 3u);
  EXPECT_EQ(action->caches[0].operation, "GET");
  EXPECT_EQ(action->caches[1].product, "Redis");
  EXPECT_EQ(action->caches[1].duration_ms, 6);
  EXPECT_EQ(action->caches[2].collection, "shop.orders");
  EXPECT_EQ(action->caches[2].operation, "FIND");
  EXPECT_EQ(action->unknown.size(), 1u) << "a text cut before its operation";
  // A text cut within or before its figure still tells what was called.
  auto cut = read_action(record(0x29, "Redis\n\n" + std::string(118, 'k') + "\n"));
  ASSERT_EQ(cut->caches.size(), 1u);
  EXPECT_EQ(cut->caches[0].duration_ms, 0);
}

TEST(Packet, ReadsOutgoingCallsErrorsAndComponents) {
  auto action = read_action(
      record(0x29, "http\nhttp://b/*/curl_exec\n\n50") + record(0x29, "http\nhttp://c/App\\\\Client\n\n70\n12|34\nWebAction/api") +
      record(0x2D, "External/http://b/\n1000\n\ntimed \\\"out\\\"\n?q=1\n[\"f(a.php:1)\"]") +
      record(0x2A, "1\n500\nApp\\\\Oops\ncaf\\u00e9 line\\nbreak\n[\"m(b.php:2)\"]") + record(0x2B, "20\n5\nPHP/App\\\\Cart/pay\nnow"));
  ASSERT_EQ(action->services.size(), 2u);
  EXPECT_EQ(action->services[0].duration_ms, 50);
  EXPECT_EQ(action->services[0].callee_action, "");
  EXPECT_EQ(action->services[1].name, "http://c/App\\Client");
  EXPECT_EQ(action->services[1].callee_id, "12|34");
  EXPECT_EQ(action->services[1].callee_action, "WebAction/api");
  ASSERT_EQ(action->service_errors.size(), 1u);
  EXPECT_EQ(action->service_errors[0].code, 1000);
  EXPECT_EQ(action->service_errors[0].status, "");
  EXPECT_EQ(action->service_errors[0].message, "timed \"out\"");
  EXPECT_EQ(action->service_errors[0].stack, "[\"f(a.php:1)\"]");
  ASSERT_TRUE(action->error);
  EXPECT_EQ(action->error->cls, "App\\Oops");
  EXPECT_EQ(action->error->message, "caf\u00e9 line\nbreak");
  EXPECT_EQ(action->status(), 500) << "of the error, as there is no detail with it";
  ASSERT_EQ(action->components.size(), 1u);
  EXPECT_EQ(action->components[0].own_ms, 5);
  EXPECT_EQ(action->components[0].name, "PHP/App\\Cart/pay\nnow");
}

TEST(Packet, SurvivesEveryCutOfAFullPacket) {
  const std::string whole = action_body("Shop", "name", 5, record(0x27, "2:124:test8:SELECT 1") + record(0x29, "Redis\n\nGET\n6") +
                                                               record(0x2A, "1\n500\nc\nm\n[]") + record(0x23, "a: b"));
  int accepted = 0;
  for (size_t length = 0; length <= whole.size(); length++) accepted += read_action(whole.substr(0, length)).has_value();
  EXPECT_EQ(accepted, 12) << "nothing, and after each of the eleven records";
}

TEST(Packet, ReadsTheLinesOfAThreadProfile) {
  auto packet = [](const std::string& line) { return record(17, "Shop") + record(14, "key") + record(44, line); };
  auto event = read_profile_event(packet("1234567 42 enter function Cart::add all"));
  ASSERT_TRUE(event);
  EXPECT_EQ(event->application, "Shop");
  EXPECT_EQ(event->at_ms, 1234567);
  EXPECT_EQ(event->thread, 42);
  EXPECT_TRUE(event->enter);
  EXPECT_EQ(event->kind, "function");
  EXPECT_EQ(event->name, "Cart::add all");
  EXPECT_FALSE(read_profile_event(packet("1 2 leave action ok"))->enter);
  for (const char* line : {"", "x 2 enter action Web", "1 x enter action Web", "1 2 jump action Web"}) {
    EXPECT_FALSE(read_profile_event(packet(line))) << line;
  }
  EXPECT_FALSE(read_profile_event(record(17, "Shop")));
}
