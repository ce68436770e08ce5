// The store: what is written is found again, within its bound, and its thread outlives a broken file.
#include "daemon_records.h"
#include "store/store_reader.h"
#include "store/store_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

using namespace quorbit;
using namespace quorbit_test;

class StoreTest : public testing::Test {
 protected:
  static StoredPacket metric(int64_t at_ms, const std::string& application, const std::string& more = "") {
    return {0x0B, 42, at_ms, action_body(application, "cart", 100, more)};
  }
  static StoredPacket event(int64_t at_ms, const std::string& line) {
    return {0x09, 42, at_ms, record(17, "Shop") + record(14, "key") + record(44, line)};
  }
  // One transaction of a store that is open for that long.
  void write(const std::function<void(Store&)>& items) {
    Store store(path_);
    store.begin();
    items(store);
    store.commit();
  }
  void add(const std::vector<StoredPacket>& packets) {
    write([&](Store& store) {
      for (const StoredPacket& packet : packets) store.add(packet);
    });
  }

  void keep(const StoreBounds& bounds) {
    Store store(path_);
    while (store.maintain(bounds)) continue;
  }
  // Thread and name of each event of "Shop".
  static std::string events_of(StoreReader& reader, int64_t since_ms) {
    std::string seen;
    reader.each_profile_event("Shop", since_ms, [&](const ProfileEvent& event) { seen += std::to_string(event.thread) + event.name; });
    return seen;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
};

TEST_F(StoreTest, FindsActionsAgain) {
  add({metric(1000, "Shop", record(0x16, number(40)) + record(0x2A, "1\n500\nc\nm\n")), metric(2000, "Api"), metric(3000, "Shop"),
       {0x0B, 1, 1, "garbled"}});
  StoreReader reader(path_);
  auto all = reader.newest(10, "");
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].received_ms, 3000);
  EXPECT_EQ(all[2].application, "Shop");
  EXPECT_EQ(all[2].code_ms, 60);
  EXPECT_TRUE(all[2].error);
  EXPECT_EQ(reader.newest(1, "Shop")[0].received_ms, 3000);
  EXPECT_EQ(reader.after(all[2].id, "Shop").size(), 1u);
  EXPECT_EQ(reader.action(all[2].id)->action.error->cls, "c");
  EXPECT_FALSE(reader.action(99));
  int since = 0;
  reader.each_since(2000, "", [&](const ActionRow&) { since++; });
  EXPECT_EQ(since, 2);
}

TEST_F(StoreTest, JoinsTheHalvesOfATransaction) {
  add({metric(1, "Shop", record(0x20, "tx") + record(0x26, "a")), metric(2, "Api", record(0x20, "tx") + record(0x26, "b")),
       metric(3, "Other", record(0x26, "c")), metric(4, "Alone")});
  StoreReader reader(path_);
  auto related = reader.related(*reader.action(1), {"c", "b", "missing"});
  ASSERT_EQ(related.size(), 2u);
  EXPECT_EQ(related[0].row.application, "Api");
  EXPECT_EQ(related[1].row.application, "Other");
  EXPECT_TRUE(reader.related(*reader.action(4), {}).empty()) << "no id is nobody's id";
}

TEST_F(StoreTest, DropsTheOldestFirstAndNoMoreThanItMust) {
  const std::string large = record(0x77, std::string(50000, 'x'));
  write([&](Store& store) {
    for (int i = 0; i < 200; i++) store.add(metric(1000 + i, "Shop", large));
  });
  keep({4 << 20, 1 << 20});
  auto rows = StoreReader(path_).newest(1000, "");
  EXPECT_EQ(rows.front().received_ms, 1199);
  EXPECT_GT(rows.size(), 60u);
  EXPECT_LT(rows.size(), 84u);
  EXPECT_LE(std::filesystem::file_size(path_), 6u << 20) << "freed pages go back to the file system";
}

TEST_F(StoreTest, AProfilePushesOutNoAction) {
  write([&](Store& store) {
    for (int i = 0; i < 300; i++) store.add(metric(1000 + i, "Shop", record(0x77, std::string(3000, 'x'))));
  });
  StoreReader client(path_, true);
  client.order_profile("Shop", 30);
  Store store(path_);
  store.open_orders(1);
  for (int round = 0; round < 20; round++) {
    store.begin();
    for (int i = 0; i < 3000; i++) store.add(event(2000, std::to_string(i) + " 1 enter function f" + std::to_string(round)));
    store.commit();
    while (store.maintain({2 << 20, 1 << 20})) continue;
  }
  EXPECT_EQ(StoreReader(path_).newest(1000, "").size(), 300u);
  int kept = 0, newest = 0;
  client.each_profile_event("Shop", 0, [&](const ProfileEvent& event) {
    kept++;
    newest += event.name == "f19";
  });
  EXPECT_EQ(newest, 3000) << "the oldest go first";
  EXPECT_GT(kept, 8000) << "the bound of their own is used";
  EXPECT_LE(std::filesystem::file_size(path_), 7u << 19) << "and kept";
}

TEST_F(StoreTest, RemembersApplicationsWithinABound) {
  write([](Store& store) {
    for (int i = 0; i < 1100; i++) store.add(StoredQuery{"App" + std::to_string(i), 7, 1000 + i, "cli", "5.6", "a=b\n"});
    store.add(metric(5000, "App0"));
    store.limit_tables();
  });
  auto applications = StoreReader(path_).applications();
  EXPECT_EQ(applications.size(), 1024u);
  ASSERT_EQ(applications[0].name, "App0") << "seen last, though asked first";
  EXPECT_EQ(applications[0].query_ms, 1000);
  EXPECT_EQ(applications[0].packet_ms, 5000);
}

TEST_F(StoreTest, CarriesProfileOrdersAndTheirEvents) {
  Store store(path_);
  StoreReader client(path_, true), other(path_, true);
  store.changed_by_others();
  int64_t order = client.order_profile("Shop", 30), taken_back = other.order_profile("Shop", 5);
  EXPECT_TRUE(store.changed_by_others());
  other.cancel_order(taken_back);
  auto open = store.open_orders(1);
  ASSERT_EQ(open.size(), 1u);
  EXPECT_EQ(open[0].seconds, 30);
  EXPECT_FALSE(client.order_start(order));
  store.order_started({order, "Shop", 30, 777, 42});
  EXPECT_EQ(client.order_start(order), (std::pair<int64_t, int64_t>(42, 777)));
  EXPECT_EQ(store.open_orders(1)[0].started_ms, 777) << "a daemon that is started anew goes on with it";
  EXPECT_EQ(StoreReader(path_).open_profiles().size(), 1u);

  store.begin();
  for (const auto& [at_ms, line] : {std::pair(700, "1 5 enter action old"), std::pair(800, "2 9 enter action a"),
                                    std::pair(801, "3 5 enter action b"), std::pair(802, "4 9 leave action a")}) {
    store.add(event(at_ms, line));
  }
  store.commit();
  EXPECT_EQ(events_of(client, 777), "5b9a9a");
  EXPECT_EQ(StoreReader(path_, true).stop_profiles("Shop"), 1);
  EXPECT_TRUE(client.order_ended(order));
  EXPECT_TRUE(store.open_orders(1).empty());
  while (store.maintain({})) continue;
  EXPECT_EQ(events_of(client, 777), "5b9a9a") << "its client may still print it";
}

TEST_F(StoreTest, WhatAProfileLeavesGoesWithItsClient) {
  Store store(path_);
  auto add_event = [&](const char* line) {
    store.begin();
    store.add(event(800, line));
    store.commit();
    while (store.maintain({})) continue;
  };
  std::optional<StoreReader> client(std::in_place, path_, true);
  client->order_profile("Shop", 30);
  store.open_orders(1);
  add_event("1 1 enter action kept");
  StoreReader reader(path_);
  EXPECT_EQ(events_of(reader, 0), "1kept");
  client.reset();  // as when its process is killed
  EXPECT_TRUE(store.open_orders(2).empty());
  add_event("2 1 enter action late");
  EXPECT_EQ(events_of(reader, 0), "") << "nobody waits for them";
  EXPECT_TRUE(reader.open_profiles().empty());
}

TEST_F(StoreTest, WriterGoesOnWhenABrokenStoreHasBeenMovedAway) {
  const std::string log = folder_.path() + "/log";
  log_open(log, LogLevel::info);
  std::ofstream(path_) << std::string(10000, 'x');
  ProfileSessions sessions;
  StoreWriter writer(path_, sessions);
  writer.put(metric(1, "Lost"));
  EXPECT_TRUE(becomes_true([&] { return contents(log).find("the store cannot be written") != std::string::npos; }));
  EXPECT_EQ(std::filesystem::file_size(path_), 10000u) << "what is not ours is left alone";
  std::filesystem::remove(path_);
  EXPECT_TRUE(becomes_true([&] {
    writer.put(metric(2, "Kept"));
    return contents(log).find("the store works again") != std::string::npos;
  }));
  log_open("", LogLevel::off);
  auto rows = StoreReader(path_).newest(1, "");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].application, "Kept");
}

TEST_F(StoreTest, GivesEachNumberOnceWhateverWasRemovedMeanwhile) {
  add({metric(1, "Shop"), metric(2, "Shop")});
  keep({0, 0});
  add({metric(3, "Shop")});
  auto rows = StoreReader(path_).newest(10, "");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].id, 3);
}
