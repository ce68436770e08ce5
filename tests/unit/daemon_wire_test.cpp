// Framing, queries and answers, against bytes written out by hand; and connections that deliver them in pieces.
#include "receive/connection.h"
#include "daemon_records.h"
#include "facts/wire.h"

#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

TEST(Wire, ReadsRecordsThatFillTheirPacketAndNothingElse) {
  const struct {
    std::string bytes;
    int records;  // -1: refused
  } rows[] = {
      {""s, 0},
      {"\x1C\x00\x00\x02\x41\x3D"s, 1},           // A=
      {"\x11\x00\x00\x00\xFF\x00\x00\x01k"s, 2},  // an empty body is a body, and unknown types are framed like others
      {"\x1C\x00\x00\x03\x41\x3D"s, -1},          // one byte short
      {"\x1C\x00\x00\x02\x41\x3D\x00\x00\x00"s, -1},
      {"\x11\xFF\xFF\xFF"s, -1},
  };
  for (const auto& row : rows) {
    auto records = read_records(row.bytes);
    EXPECT_EQ(records ? static_cast<int>(records->size()) : -1, row.records) << testing::PrintToString(row.bytes);
  }
}

TEST(Wire, FramesWhatThreeBytesCanMeasure) {
  EXPECT_EQ(read_header("\x0B\x01\x02\x03").length, 0x010203u);
  std::string out;
  EXPECT_TRUE(append_record(out, 0x0D, std::string(0x010203, 'x')));
  EXPECT_EQ(out.substr(0, 4), "\x0D\x01\x02\x03"s);
  out = "kept";
  EXPECT_FALSE(append_record(out, 0x0D, std::string(1 << 24, 'x')));
  EXPECT_EQ(out, "kept");
  EXPECT_TRUE(append_record(out, 0x0D, std::string((1 << 24) - 1, 'x')));
}

TEST(Wire, ReadsWhatAnAgentAsks) {
  auto query = read_query(record(0x11, "Shop") + record(0x0E, "key") + record(0x0C, "\x08\x07\x06\x05\x04\x03\x02\x01") +
                          record(0x0D, "zqs.agent_enabled=true") + record(0x1C, "quorbit=Oct 20 2016") +
                          record(0x1C, "Plugin List=") + record(0x1C, "none") + record(0x1C, "Server API=a=b=c"));
  ASSERT_TRUE(query);
  EXPECT_EQ(query->application, "Shop");
  EXPECT_EQ(query->stamp, 0x0102030405060708u);
  EXPECT_EQ(query->environment_value("quorbit"), "Oct 20 2016");
  EXPECT_EQ(query->environment_value("Server API"), "a=b=c");
  EXPECT_EQ(query->environment.size(), 3u);
  EXPECT_EQ(read_query(record(0x0C, "\x01\x02\x03\x04"))->stamp, 0u) << "a short stamp is none";
  EXPECT_FALSE(read_query("\x11\x00\x00\x05Shop"sv));
}

TEST(Wire, AnswersWithTheStampFirstAndSettingsOnlyWhenTheyAreNew) {
  const std::string stamp = "\x0C\x00\x00\x08\x08\x07\x06\x05\x04\x03\x02\x01"s;
  const std::string setting = "\x0D\x00\x00\x16zqs.agent_enabled=true"s;
  const Settings settings = {{"zqs.agent_enabled", "true"}};
  EXPECT_EQ(write_answer(0x0102030405060708, 0, settings), "\x0A\x00\x00\x26"s + stamp + setting);
  EXPECT_EQ(write_answer(0x0102030405060708, 0x0102030405060708, settings), "\x0A\x00\x00\x0C"s + stamp);
  // Settings that do not fit into an answer are left out, not cut.
  Settings large = {{"zqs.rum.script", std::string(9000000, 'x')}, {"zqs.naming.rules", std::string(9000000, 'x')}};
  EXPECT_EQ(write_answer(0x0102030405060708, 0, large), "\x0A\x00\x00\x0C"s + stamp);
}

namespace {

// Feeds bytes in pieces; packets as "type:body" joined by ";", or the fault.
std::string deliver(const std::string& bytes, size_t piece, BufferBudget& budget) {
  Connection connection(-1, 1, budget);
  std::string seen;
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const char* fault = connection.receive(std::string_view(bytes).substr(at, piece), [&](uint8_t type, std::string_view body) {
      seen += std::to_string(type) + ":" + std::string(body) + ";";
      return body == "bad" ? "bad packet" : nullptr;
    });
    if (fault) return seen + fault;
  }
  return seen + (connection.has_partial_packet() ? "partial" : "");
}

}  // namespace

TEST(Connection, PutsPacketsTogetherHoweverTheyArrive) {
  const std::string packets = record(0x0B, "metric") + record(0x0A, "") + record(0x09, "profile");
  const struct {
    std::string bytes;
    const char* seen;
  } rows[] = {
      {packets, "11:metric;10:;9:profile;"},
      {packets.substr(0, packets.size() - 1), "11:metric;10:;partial"},
      {record(0x0B, "a") + record(0x0D, "b") + packets, "11:a;sent something that is no packet"},
      {record(0x0B, "bad") + packets, "11:bad;bad packet"},
  };
  for (const auto& row : rows) {
    for (size_t piece = 1; piece <= row.bytes.size(); piece++) {
      BufferBudget budget{1000000};
      EXPECT_EQ(deliver(row.bytes, piece, budget), row.seen) << piece;
      EXPECT_EQ(budget.used_bytes, 0u);
    }
  }
}

TEST(Connection, HoldsNoMoreThanTheBudgetAndGivesItBack) {
  BufferBudget budget{100000};
  const std::string large = "\x0B\xFF\xFF\xFF"s + std::string(90000, 'x');
  {
    Connection first(-1, 1, budget), second(-1, 2, budget);
    auto ignore = [](uint8_t, std::string_view) -> const char* { return nullptr; };
    EXPECT_EQ(first.receive(large, ignore), nullptr);
    EXPECT_GE(budget.used_bytes, large.size());
    EXPECT_NE(second.receive(large, ignore), nullptr) << "two of them are too many";
  }
  EXPECT_EQ(budget.used_bytes, 0u);
  Connection agent(-1, 3, budget);
  EXPECT_TRUE(agent.keep_answer(std::string(50000, 'a')));
  agent.answer_sent(20000);
  EXPECT_EQ(agent.waiting_answer().size(), 30000u);
  EXPECT_TRUE(agent.is_busy());
  agent.answer_sent(30000);
  EXPECT_FALSE(agent.is_busy());
  EXPECT_EQ(budget.used_bytes, 0u);
}
