// The thread that writes: what others do to the file costs no packet while the backlog has room.
#include "daemon_records.h"
#include "store/sqlite_reader.h"
#include "store/store_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

using namespace quorbit;
using namespace quorbit_test;
using namespace std::chrono_literals;

class WriterTest : public testing::Test {
 protected:
  static StoredPacket metric(const std::string& application, size_t bytes = 1) {
    return {0x0B, 42, 1, action_body(application, "cart", 100, record(0x77, std::string(bytes, 'x')))};
  }
  static std::vector<ActionRow> list(Reader& reader, const std::string& application) {
    return reader.actions({{{}, application}, ActionOrder::newest, 100000});
  }
  // How many actions of the application the store holds; -1 while it cannot be read.
  int64_t stored(const std::string& application) {
    try {
      return static_cast<int64_t>(list(*open_sqlite_reader(path_), application).size());
    } catch (const SqliteError&) {
      return -1;
    }
  }
  uintmax_t log_bytes() {
    std::error_code failure;
    uintmax_t bytes = std::filesystem::file_size(path_ + "-wal", failure);
    return failure ? 0 : bytes;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
  ProfileSessions sessions_;
};

TEST_F(WriterTest, GoesOnWhenABrokenStoreHasBeenMovedAway) {
  std::ofstream(path_) << std::string(10000, 'x');
  const std::string log = folder_.path() + "/log";
  log_open(log, LogLevel::info);
  StoreWriter writer(path_, sessions_);
  writer.put(metric("Waits"));
  ASSERT_TRUE(becomes_true([&] { return contents(log).find("the store cannot be written") != std::string::npos; }));
  EXPECT_EQ(std::filesystem::file_size(path_), 10000u) << "what is not ours is left alone";
  EXPECT_EQ(contents(log).find("works again"), std::string::npos);
  std::filesystem::remove(path_);
  EXPECT_TRUE(becomes_true([&] { return stored("Waits") == 1; })) << "it waited in the backlog";
  EXPECT_NE(contents(log).find("works again; 0 packets and queries were not stored meanwhile"), std::string::npos);
  log_open("", LogLevel::off);
}

TEST_F(WriterTest, GoesOnInANewStoreWhileACommandReadsTheOneMovedAway) {
  StoreWriter writer(path_, sessions_);
  writer.put(metric("Old"));
  ASSERT_TRUE(becomes_true([&] { return stored("Old") == 1; }));
  auto tail = open_sqlite_reader(path_);
  ASSERT_EQ(list(*tail, "").size(), 1u);
  std::filesystem::rename(path_, folder_.path() + "/broken.db");
  writer.put(metric("New"));
  EXPECT_TRUE(becomes_true([&] { return stored("New") == 1; }));
  EXPECT_EQ(stored("Old"), 0);
  EXPECT_TRUE(becomes_true([&] { return list(*tail, "New").size() == 1; })) << "whoever reads goes over to it";
}

TEST_F(WriterTest, LosesNothingWhileAnotherProgramHoldsTheWriteLock) {
  StoreWriter writer(path_, sessions_);
  writer.put(metric("Before"));
  ASSERT_TRUE(becomes_true([&] { return stored("Before") == 1; }));
  Database other(path_, Database::Mode::read_write);
  other.execute("BEGIN IMMEDIATE");
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(Database::busy_ms + 1000);
  int put = 0;
  for (; std::chrono::steady_clock::now() < end; put++) {
    writer.put(metric("Shop"));
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(stored("Shop"), 0);
  other.execute("ROLLBACK");
  EXPECT_TRUE(becomes_true([&] { return stored("Shop") == put; })) << stored("Shop") << " of " << put;
}

TEST_F(WriterTest, UnderOverloadTextsGoBeforeActionsAndWhatWentIsCounted) {
  StoreWriter writer(path_, sessions_);
  writer.put(metric("Before"));
  ASSERT_TRUE(becomes_true([&] { return stored("Before") == 1; }));
  Database other(path_, Database::Mode::read_write);
  other.execute("BEGIN IMMEDIATE");
  constexpr int put = 5000;
  for (int i = 0; i < put; i++) writer.put(metric("Shop", 20000), {1000, 1});  // 100 MB, of which 64 MiB may wait
  writer.put(metric("Quiet", 20000), {33, 2});
  writer.count_dropped("Api", "told by the receiver", 3);
  other.execute("ROLLBACK");
  EXPECT_TRUE(becomes_true([&] { return stored("Shop") == put; })) << stored("Shop");
  const auto quiet = list(*open_sqlite_reader(path_), "Quiet");
  ASSERT_EQ(quiet.size(), 1u);
  EXPECT_LT(quiet[0].id, 1000) << "accounts take turns";
  EXPECT_EQ(open_sqlite_reader(path_)->action(quiet[0].id)->action.unknown.size(), 1u) << "whose account has little there loses nothing";
  auto dropped = open_sqlite_reader(path_)->dropped({}, "");
  ASSERT_EQ(dropped.size(), 2u);
  EXPECT_EQ(dropped[0].application + ": " + dropped[0].reason, std::string("Shop: ") + dropped_to_head);
  EXPECT_GT(dropped[0].count, put / 2);
  EXPECT_LT(dropped[0].count, put * 3 / 4);
  EXPECT_EQ(dropped[1].application + ": " + dropped[1].reason, "Api: told by the receiver");
  EXPECT_EQ(dropped[1].count, 3);
}

TEST_F(WriterTest, LeavesAReaderBehindThatStandsStill) {
  constexpr uintmax_t bound = 2 << 20;
  StoreWriter writer(path_, sessions_);
  writer.set_bounds({.log_bytes = bound});
  writer.put(metric("Shop"));
  ASSERT_TRUE(becomes_true([&] { return stored("Shop") == 1; }));
  Database stopped(path_, Database::Mode::read_only);
  Statement reading(stopped, "SELECT name FROM action");
  ASSERT_TRUE(reading.step());
  auto paging = open_sqlite_reader(path_);
  uintmax_t largest = 0;
  int put = 0;
  for (; put < 1500; put++) {
    writer.put(metric("Shop", 20000));
    if (put % 100 == 0) std::this_thread::sleep_for(150ms);
    largest = std::max(largest, log_bytes());
  }
  EXPECT_TRUE(becomes_true([&] { return stored("Shop") == put + 1; })) << stored("Shop");
  EXPECT_LE(largest, 2 * bound + (9 << 20)) << "twice the bound and one transaction";
  EXPECT_EQ(list(*paging, "").size(), static_cast<size_t>(put) + 1) << "a command reads the next page of the new file";
  EXPECT_FALSE(reading.step()) << "the one left behind reads what it began to read, to its end";
  EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0600));
  EXPECT_FALSE(std::filesystem::exists(path_ + "-new") || std::filesystem::exists(path_ + "-old"));
}

TEST_F(WriterTest, FinishesOrTakesBackAReplacementThatWasInterrupted) {
  struct Case {
    const char* old_name;
    const char* copy_name;
    const char* found;
  };
  for (const Case& left : {Case{"-old", "-new", "Copy"}, Case{"-old", "-gone", "Old"}, Case{"", "-new", "Old"}}) {
    for (const char* rest : {"", "-old", "-new", "-wal", "-shm"}) std::filesystem::remove(path_ + rest);
    for (const auto& [application, name] : {std::pair("Old", left.old_name), std::pair("Copy", left.copy_name)}) {
      Store store(folder_.path() + "/made.db");
      store.begin();
      store.add(metric(application));
      store.commit();
      store.empty_log();
      std::filesystem::copy_file(folder_.path() + "/made.db", path_ + name);
      std::filesystem::remove(folder_.path() + "/made.db");
    }
    Store opened(path_);
    EXPECT_EQ(stored(left.found), 1) << left.old_name << left.copy_name;
  }
}
