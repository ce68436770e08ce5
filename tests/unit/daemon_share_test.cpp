// One action's share of the store: what goes first, what stays, and that it is counted.
#include "daemon_records.h"
#include "facts/packet.h"

#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

namespace {

std::string item(const std::string& text) { return std::to_string(text.size()) + ":" + text; }

std::string statement(int ms, const std::string& text, const std::string& stack = "") {
  return record(0x27, item(std::to_string(ms)) + item("MySQL") + item(text) + (stack.empty() ? "" : item(stack)));
}

// What the store keeps of a body with the records that every action has and these.
std::optional<Action> kept(const std::string& more, const PacketShare& share = {}) {
  auto cut = within_share(action_body("Shop", "cart", 100, more), share);
  return cut ? read_action(*cut) : std::nullopt;
}

std::string repeat(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; i++) all += text;
  return all;
}

}  // namespace

TEST(PacketShare, LeavesParametersOutFirstThenTextsThenTheQuickestStatements) {
  const std::string small = record(0x24, "httpStatus: 404") + statement(9, "SELECT 9", "[\"stack\"]");
  EXPECT_FALSE(kept(small + repeat(20, record(0x23, "field: " + std::string(4000, 'x'))))) << "within its share";

  auto parameters = kept(small + repeat(990, record(0x23, "field: " + std::string(4000, 'x'))));
  EXPECT_GT(parameters->left_out.parameters, 900);
  EXPECT_EQ(parameters->left_out.parameters + static_cast<int64_t>(parameters->parameters.size()), 990);
  EXPECT_EQ(parameters->left_out.texts, 0);
  EXPECT_EQ(parameters->statements[0].stack, "[\"stack\"]");

  auto texts = kept(small + repeat(100, record(0x2D, "a\n1\nb\nc\nd\n" + std::string(4000, 'x'))) + record(0x23, "field: x"));
  EXPECT_EQ(texts->left_out.parameters, 1);
  EXPECT_GT(texts->left_out.texts, 30);
  EXPECT_EQ(texts->left_out.statements, 0);
  EXPECT_EQ(texts->status(), 404);

  std::string statements;
  for (int i = 0; i < 500; i++) statements += statement(i % 100, "SELECT " + std::string(1000, 'x'), "[\"stack\"]");
  auto quick = kept(statements);
  EXPECT_GT(quick->left_out.statements, 200);
  EXPECT_EQ(quick->left_out.statements + static_cast<int64_t>(quick->statements.size()), 500);
  for (const SqlStatement& one : quick->statements) EXPECT_GE(one.duration_ms, 40);
  EXPECT_EQ(quick->duration_ms, 100);
}

TEST(PacketShare, OfAHeadSumsAndTheErrorStay) {
  auto head = kept(record(0x16, number(40)) + record(0x17, "12\nRedis") + record(0x2A, "1\n500\nclass\nmessage\n[\"stack\"]") +
                       statement(5, "SELECT 1") + record(0x25, "[1]") + record(0x20, "tx") + record(0x23, "a: b"),
                   head_share);
  ASSERT_TRUE(head);
  EXPECT_EQ(std::tuple(head->database_ms, head->cache_ms, head->duration_ms, head->transaction_id), std::tuple(40, 12, 100, "tx"));
  EXPECT_EQ(std::tuple(head->error->cls, head->error->message, head->error->stack), std::tuple("class", "message", ""));
  EXPECT_EQ(head->statements.size() + head->parameters.size() + head->trace.size(), 0u);
  EXPECT_EQ(std::tuple(head->left_out.statements, head->left_out.parameters, head->left_out.traces, head->left_out.texts),
            std::tuple(1, 1, 1, 1));
}

TEST(PacketShare, BearsWhatNoAgentSends) {
  for (const char* body : {"", ":", "99999999:x", "-1:x", "3:ab", "1:a1:b", "999999999999999999999:x"}) {
    EXPECT_TRUE(kept(record(0x27, body) + record(0x2A, body) + repeat(20, record(0x55, std::string(20000, 'x'))))) << body;
  }
}

TEST(PacketShare, HoldsWhateverAPacketIsMadeOf) {
  const std::string long_name = record(0x12, std::string(60000, 'n'));
  struct Case {
    const char* of;
    std::string more;
    PacketShare share;
  };
  for (const Case& sent : {Case{"names", repeat(150, long_name), {}}, Case{"a name", long_name, head_share},
                           Case{"cache totals", repeat(100000, record(0x17, "1\nRedis")), {}},
                           Case{"empty records", repeat(2000000, record(0x24, "")), {}},
                           Case{"empty records, to the head", repeat(2000000, record(0x24, "")), head_share}}) {
    auto cut = within_share(action_body("Shop", "cart", 100, sent.more), sent.share);
    ASSERT_TRUE(cut) << sent.of;
    EXPECT_LE(cut->size(), std::max(sent.share.most_bytes, size_t{20000})) << sent.of;
    EXPECT_GT(read_action(*cut)->left_out.texts, 0) << sent.of;
    EXPECT_EQ(read_action(*cut)->duration_ms, 100) << sent.of;
  }
}
