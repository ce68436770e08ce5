// Framing, queries and answers, against bytes written out by hand; and connections that deliver them in pieces.
#include "receive/connection.h"
#include "daemon_records.h"
#include "facts/wire.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

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
    int records = 0;
    bool framed = for_each_record(row.bytes, [&](const Record&) { records++; });
    EXPECT_EQ(framed ? records : -1, row.records) << testing::PrintToString(row.bytes);
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
std::string deliver(const std::string& bytes, size_t piece, Shares& budget) {
  Connection connection(-1, 1, {}, budget);
  std::string seen;
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const char* fault = connection.receive(std::string_view(bytes).substr(at, piece), [&](uint8_t type, std::string body) {
      seen += std::to_string(type) + ":" + body.substr(std::min(body.size(), size_t{4})) + ";";
      return body == record(0x11, "bad") ? "bad packet" : nullptr;
    });
    if (fault) return seen + fault;
  }
  return seen + (connection.has_partial_packet() ? "partial" : "");
}

}  // namespace

TEST(Connection, PutsPacketsTogetherHoweverTheyArrive) {
  auto packet = [](int type, std::string_view text) { return record(type, record(0x11, text)); };
  const std::string packets = packet(0x0B, "metric") + record(0x0A, "") + packet(0x09, "profile");
  const char* const overrun = "sent a packet whose records do not fit into it";
  const struct {
    std::string bytes;
    std::string seen;
  } rows[] = {
      {packets, "11:metric;10:;9:profile;"},
      {packets.substr(0, packets.size() - 1), "11:metric;10:;partial"},
      {packet(0x0B, "a") + record(0x0D, "b") + packets, "11:a;sent something that is not a packet"},
      {packet(0x0B, "bad") + packets, "11:bad;bad packet"},
      {record(0x0B, "\x11\0\0\x02x"sv) + packets, overrun},
      {record(0x0B, record(0x11, "x") + "\x11\0\0"s) + packets, overrun},
  };
  for (const auto& row : rows) {
    for (size_t piece = 1; piece <= row.bytes.size(); piece++) {
      Shares budget(1000000);
      EXPECT_EQ(deliver(row.bytes, piece, budget), row.seen) << piece;
      EXPECT_EQ(budget.used_bytes(), 0u);
    }
  }
}

TEST(Connection, HoldsNoMoreThanTheBudgetAndGivesItBack) {
  Shares budget(100000);
  const std::string large = "\x0B\xFF\xFF\xFF\x25\xFF\xFF\xFB"s + std::string(70000, 'x');
  auto ignore = [](uint8_t, std::string) -> const char* { return nullptr; };
  {
    Connection first(-1, 1, {33, 1}, budget), second(-1, 2, {33, 2}, budget);
    EXPECT_EQ(first.receive(large.substr(0, 20000), ignore), nullptr);
    EXPECT_GE(budget.used_bytes(), 20000u);
    EXPECT_NE(second.receive(large, ignore), nullptr) << "two of them are too many";
  }
  EXPECT_EQ(budget.used_bytes(), 0u);
  Connection agent(-1, 3, {33, 3}, budget);
  EXPECT_TRUE(agent.keep_answer(std::string(50000, 'a')));
  agent.answer_sent(20000);
  EXPECT_EQ(agent.waiting_answer().size(), 30000u);
  EXPECT_TRUE(agent.is_busy());
  agent.answer_sent(30000);
  EXPECT_FALSE(agent.is_busy());
  EXPECT_EQ(budget.used_bytes(), 0u);
}

TEST(Connection, TakesWhatAPacketTakesAndNothingWhenIdle) {
  Shares budget(size_t{1} << 30);
  const std::string large = "\x0B\x04\x00\x04\x25\x04\x00\x00"s + std::string(1 << 18, 'x'), next = record(0x0B, "");
  std::vector<std::unique_ptr<Connection>> agents;
  size_t kept = 0;
  for (int i = 0; i < 1000; i++) {
    agents.push_back(std::make_unique<Connection>(-1, i, Sender{33, static_cast<uint64_t>(i)}, budget));
    auto keep = [&](uint8_t, std::string body) -> const char* {
      kept += body.size();
      return nullptr;
    };
    agents[i]->receive(large.substr(0, 200000), keep);
    EXPECT_LE(budget.used_bytes(), large.size());
    agents[i]->receive(large.substr(200000) + next, keep);
    ASSERT_EQ(budget.used_bytes(), 0u) << i;
  }
  EXPECT_EQ(kept, 1000 * (large.size() - 4));
}
