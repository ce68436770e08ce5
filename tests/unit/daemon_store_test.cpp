// The store: what is written is found again, within its bounds.
#include "base/clock.h"
#include "daemon_records.h"
#include "print/report.h"
#include "store/profile_orders.h"
#include "store/sqlite_reader.h"
#include "store/store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <unistd.h>

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
  std::string events_of(int64_t after_id) const {
    std::string seen;
    open_sqlite_reader(path_)->each_profile_event({"Shop", after_id}, [&](const ProfileEvent& event) { seen += std::to_string(event.thread) + event.name; });
    return seen;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
};

TEST_F(StoreTest, FindsActionsAgain) {
  add({metric(1000, "Shop", record(0x16, number(40)) + record(0x2A, "1\n500\nc\nm\n")), metric(2000, "Api"), metric(3000, "Shop"),
       {0x0B, 1, 1, "garbled"}});
  auto reader = open_sqlite_reader(path_);
  auto all = reader->actions({});
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].received_ms, 3000);
  EXPECT_EQ(all[2].application, "Shop");
  EXPECT_EQ(all[2].code_ms, 60);
  EXPECT_TRUE(all[2].error);
  EXPECT_EQ(reader->action(all[2].id)->action.error->cls, "c");
  EXPECT_FALSE(reader->action(99));
  EXPECT_EQ(reader->position().last_id, 3);
  const struct {
    ActionQuestion question;
    std::vector<int64_t> ids;
  } rows[] = {
      {{}, {3, 2, 1}},
      {{{}, ActionOrder::oldest, 2}, {1, 2}},
      {{{{}, "Shop", 0}, ActionOrder::newest, 1}, {3}},
      {{{{}, "Shop", 1}, ActionOrder::oldest, 9}, {3}},
      {{{{2000, 3000}, "", 0}, ActionOrder::newest, 9}, {2}},
      {{{{}, "Nobody", 0}, ActionOrder::newest, 9}, {}},
  };
  for (const auto& row : rows) {
    std::vector<int64_t> ids;
    for (const ActionRow& action : reader->actions(row.question)) ids.push_back(action.id);
    EXPECT_EQ(ids, row.ids) << &row - rows;
  }
}

TEST_F(StoreTest, SumsByApplicationAndNameWithNearestRankPercentiles) {
  std::vector<StoredPacket> packets;
  for (int i = 1; i <= 100; i++) {
    packets.push_back({0x0B, 1, 1, action_body("Shop", "cart", i, i > 97 ? record(0x2A, "1\n500\nc\nm\n") : "")});
  }
  auto figure = [](int item, int value) { return record(item, number(value) + number(0)); };
  std::string details = record(0x10, "/cart/9");
  for (const FigureRow& row : figure_rows) details += figure(row.item, 1000 + row.item);  // the first ones are told again
  details += figure(0x01, 12345999) + figure(0x02, 2345678) + figure(0x06, 7);
  packets.push_back({0x0B, 1, 2, action_body("Other", "cart", 12345, record(0x16, number(2345)) + record(0x60, details))});
  add(packets);
  auto reader = open_sqlite_reader(path_);
  const SumAnswer answer = reader->sums({});
  ASSERT_EQ(answer.rows.size(), 2u);
  EXPECT_EQ(answer.rows[0].key.application, "Other") << "most time first";
  const Sums& other = answer.rows[0].sums;
  EXPECT_EQ((std::vector{other.total_us, other.database_us, other.statements, other.slowest_id}),
            (std::vector<int64_t>{12345999, 2345678, 7, 101}));
  ActionRow told = row_of(*read_action(packets.back().body));
  told.id = 101, told.received_ms = 2, told.process = 1;
  const ActionRow kept = reader->actions({})[0];
  EXPECT_EQ(kept.path, "/cart/9");
  EXPECT_EQ(action_table({kept}, SIZE_MAX, 0), action_table({told}, SIZE_MAX, 0)) << "the store has a column of each";
  EXPECT_EQ(json_text(action_summary(kept), true), json_text(action_summary(told), true));
  const Sums& shop = answer.rows[1].sums;
  EXPECT_EQ((std::vector{shop.count, shop.errors, shop.total_us}), (std::vector<int64_t>{100, 3, 5050000}));
  EXPECT_NEAR(static_cast<double>(shop.durations.percentile_us(0.95)), 95000, 95000 * Histogram::relative_error);
  Histogram three;
  for (int64_t ms : {10, 20, 30}) three.add(ms * 1000);
  for (auto [share, ms] : {std::pair(0.0, 10), std::pair(0.3, 10), std::pair(0.4, 20), std::pair(0.7, 30), std::pair(1.0, 30)}) {
    EXPECT_NEAR(static_cast<double>(three.percentile_us(share)) / 1000, ms, ms * Histogram::relative_error) << share;
  }
}

TEST_F(StoreTest, JoinsTheHalvesOfATransaction) {
  add({metric(1, "Shop", record(0x20, "tx") + record(0x26, "a")), metric(2, "Api", record(0x20, "tx") + record(0x26, "b")),
       metric(3, "Other", record(0x26, "c")), metric(4, "Alone")});
  auto reader = open_sqlite_reader(path_);
  auto related = [&](const RelatedQuestion& question) {
    std::string names;
    reader->each_related(question, [&](const StoredAction& other) { names += other.row.application + " "; });
    return names;
  };
  EXPECT_EQ(related({1, "tx", {"c", "b", "missing"}}), "Api Other ");
  EXPECT_EQ(related({1, "tx", {"c"}, 1}), "Api ");
  EXPECT_EQ(related({4, "", {""}}), "") << "no id is nobody's id";
}

TEST_F(StoreTest, DropsTheOldestFirstAndNoMoreThanItMust) {
  const std::string large = record(0x77, std::string(50000, 'x'));
  write([&](Store& store) {
    for (int i = 0; i < 200; i++) store.add(metric(1000 + i, "Shop", large));
  });
  keep({4 << 20, 1 << 20});
  auto rows = open_sqlite_reader(path_)->actions({{}, ActionOrder::newest, 1000});
  EXPECT_EQ(rows.front().received_ms, 1199);
  EXPECT_GT(rows.size(), 60u);
  EXPECT_LT(rows.size(), 84u);
  EXPECT_LE(std::filesystem::file_size(path_), 6u << 20) << "freed pages go back to the file system";
}

// Twenty actions of each of ten names, then a flood that is many times the bound, with restarts on the way.
TEST_F(StoreTest, AFloodLeavesTheNewestAndSlowestActionsOfOthers) {
  constexpr StoreBounds bounds = {10 << 20, 1 << 20};
  struct Sent {
    std::string application, name;
    uint32_t account;
    int kilobytes;
  };
  auto put = [](Store& store, const Sent& sent, int64_t at_ms, int duration_ms) {
    std::string body = action_body(sent.application, sent.name, duration_ms);
    for (int i = 0; i < sent.kilobytes; i++) body += record(0x77, std::string(1000, 'x'));
    store.add({0x0B, 42, at_ms, body, sent.account});
  };
  struct Flood {
    const char* of;
    std::function<Sent(int)> packet;
    int count, left;  // the least that is left of the ten names' 200 actions
  };
  const Flood floods[] = {
      {"one name", [](int) { return Sent{"Shop", "flood", 33, 250}; }, 140, 200},
      {"names", [](int i) { return Sent{"Shop", "flood" + std::to_string(i), 33, 3}; }, 12000, 200},
      {"large names", [](int i) { return Sent{"Shop", "flood" + std::to_string(i), 33, 250}; }, 140, 200},
      {"an application", [](int i) { return Sent{"Flood", "flood" + std::to_string(i % 50), 33, 3}; }, 12000, 200},
      {"applications", [](int i) { return Sent{"Flood" + std::to_string(i), "flood", 33, 3}; }, 12000, 40},
      {"an account, by the same names", [](int i) { return Sent{"Shop", "n" + std::to_string(i % 10), 1000, 3}; }, 12000, 200},
  };
  for (const Flood& flood : floods) {
    std::filesystem::remove(path_);
    write([&](Store& store) {
      for (int i = 0; i < 200; i++) put(store, {"Shop", "n" + std::to_string(i % 10), 33, 3}, i, i < 10 ? 5000 + i : 40);
    });
    for (int part = 0, next = 0; part < 12; part += 4) {
      Store store(path_);
      for (int end = next + flood.count / 3; next < end;) {
        store.begin();
        for (int i = 0; i < flood.count / 12 && next < end; i++, next++) put(store, flood.packet(next), 1000 + next, 100);
        store.commit();
        while (store.maintain(bounds)) continue;
      }
    }
    int left = 0, newest = 0, slowest = 0;
    auto reader = open_sqlite_reader(path_);
    reader->each_action({{}, ActionOrder::newest, 100000}, [&](const ActionRow& row) {
      left += row.received_ms < 1000;
      newest += row.received_ms >= 190 && row.received_ms < 200;
      slowest += row.duration_ms >= 5000;
    });
    EXPECT_EQ(std::tuple(newest, slowest), std::tuple(10, 10)) << flood.of;
    EXPECT_GE(left, flood.left) << flood.of;
    EXPECT_LE(std::filesystem::file_size(path_), 13u << 20) << flood.of;
    EXPECT_GT(reader->actions({})[0].received_ms, 990) << flood.of;
  }
}

// Ten hours of one name, three weeks ago, with an error of its own in an ordinary action of each; then floods.
TEST_F(StoreTest, SumsOfWeeksAgoLeadToAnExampleWhateverCameSince) {
  constexpr StoreBounds bounds = {10 << 20, 1 << 20};
  const int64_t now_ms = wall_clock_ms(), then_ms = (now_ms - 21 * 24 * hour_ms) / hour_ms * hour_ms;
  for (bool names : {false, true}) {
    std::filesystem::remove(path_);
    write([&](Store& store) {
      for (int i = 0; i < 300; i++) {
        const std::string error = i % 30 == 7 ? record(0x2A, "1\n500\nE" + std::string(1, static_cast<char>('a' + i / 30)) + "\nm\n") : "";
        store.add(metric(then_ms + i * hour_ms / 30, "Shop", error + record(0x77, std::string(10000, 'x'))));
      }
    });
    for (int life = 0, i = 0; life < 3; life++) {
      Store store(path_);
      for (int end = i + 4000; i < end;) {
        store.begin();
        for (int packet = 0; packet < 200; packet++, i++) {
          const std::string name = names ? "flood" + std::to_string(i) : "flood";
          store.add({0x0B, 42, now_ms, action_body("Shop", name, 100, record(0x77, std::string(3000, 'x'))), 1000});
        }
        store.commit();
        while (store.maintain(bounds)) continue;
      }
    }
    auto reader = open_sqlite_reader(path_);
    SumQuestion question;
    question.key = SumKey::error;
    question.filter.range = {then_ms, then_ms + 10 * hour_ms};
    const auto errors = reader->sums(question).rows;
    EXPECT_EQ(errors.size(), 10u);
    for (const SumRow& row : errors) {
      for (int64_t id : {row.sums.slowest_id, row.sums.newest_id, row.sums.chance_id}) {
        const auto example = reader->action(id);
        EXPECT_TRUE(example && example->action.error->cls == row.key.error_class) << row.key.name << ", flood of names: " << names;
      }
    }
    question.key = SumKey::action;
    question.filter.id = reader->sums(question).rows.at(0).key.id;
    EXPECT_TRUE(reader->action(reader->sums(question).rows.at(0).sums.slowest_id));
    EXPECT_LE(std::filesystem::file_size(path_), 13u << 20);
  }
}

TEST_F(StoreTest, ReachesAMuchLowerBoundInShortSteps) {
  const std::string large = record(0x77, std::string(3000, 'x'));
  write([&](Store& store) {
    for (int i = 0; i < 15000; i++) store.add(metric(1000 + i, "Shop", large));
  });
  Store store(path_);
  std::vector<double> steps_ms;
  uintmax_t log_bytes = 0;
  for (bool more = true; more;) {
    clock_t begin = clock();
    more = store.maintain({1 << 20});
    steps_ms.push_back(1e3 * static_cast<double>(clock() - begin) / CLOCKS_PER_SEC);
    log_bytes = std::max(log_bytes, std::filesystem::file_size(path_ + "-wal"));
  }
  std::nth_element(steps_ms.begin(), steps_ms.begin() + steps_ms.size() / 2, steps_ms.end());
  EXPECT_LE(steps_ms[steps_ms.size() / 2], 25);
  EXPECT_GT(steps_ms.size(), 3u);
  EXPECT_LE(log_bytes, 20u << 20);
  store.empty_log();
  EXPECT_LE(std::filesystem::file_size(path_), 3u << 19);
  EXPECT_EQ(open_sqlite_reader(path_)->actions({})[0].received_ms, 15999);
}

TEST_F(StoreTest, AProfilePushesOutNoAction) {
  write([&](Store& store) {
    for (int i = 0; i < 300; i++) store.add(metric(1000 + i, "Shop", record(0x77, std::string(3000, 'x'))));
  });
  ProfileOrders client(path_);
  client.order("Shop", 30);
  Store store(path_);
  store.open_orders(1);
  for (int round = 0; round < 20; round++) {
    store.begin();
    for (int i = 0; i < 3000; i++) store.add(event(2000, std::to_string(i) + " 1 enter function f" + std::to_string(round)));
    store.commit();
    while (store.maintain({2 << 20, 1 << 20})) continue;
  }
  EXPECT_EQ(open_sqlite_reader(path_)->actions({{}, ActionOrder::newest, 1000}).size(), 300u);
  int kept = 0, newest = 0;
  open_sqlite_reader(path_)->each_profile_event({"Shop", {}}, [&](const ProfileEvent& event) {
    kept++;
    newest += event.name == "f19";
  });
  EXPECT_EQ(newest, 3000) << "the oldest go first";
  EXPECT_NEAR(kept, 11400, 100) << "1 MiB of their own is used, and no more";
}

TEST_F(StoreTest, RemembersApplicationsWithinABound) {
  write([](Store& store) {
    for (int i = 0; i < 1100; i++) store.add(StoredQuery{"App" + std::to_string(i), 7, 1000 + i, "cli", "5.6", "a=b\n"});
    store.add(metric(5000, "App0"));
    for (int64_t day : {0, 2, 4}) store.add_dropped("App0", "too many", 1, day * 86400000);
    store.limit_tables();
  });
  EXPECT_EQ(open_sqlite_reader(path_)->dropped({}, "").at(0).count, 2) << "of three days";
  auto applications = open_sqlite_reader(path_)->applications();
  EXPECT_EQ(applications.size(), 1024u);
  ASSERT_EQ(applications[0].name, "App0") << "seen last, though asked first";
  EXPECT_EQ(applications[0].query_ms, 1000);
  EXPECT_EQ(applications[0].packet_ms, 5000);
}

TEST_F(StoreTest, CarriesProfileOrdersAndTheirEvents) {
  Store store(path_);
  ProfileOrders client(path_), other(path_);
  store.changed_by_others();
  int64_t order = client.order("Shop", 30), taken_back = other.order("Shop", 5);
  EXPECT_TRUE(store.changed_by_others());
  other.cancel(taken_back);
  auto open = store.open_orders(1);
  ASSERT_EQ(open.size(), 1u);
  EXPECT_EQ(open[0].seconds, 30);
  EXPECT_FALSE(client.start_of(order));
  store.order_started({order, "Shop", 30, 777, 42});
  EXPECT_EQ(client.start_of(order), (std::pair<int64_t, int64_t>(42, 777)));
  EXPECT_EQ(store.open_orders(1)[0].started_ms, 777) << "a daemon that is started anew goes on with it";
  EXPECT_EQ(open_profiles(path_).size(), 1u);
  if (geteuid() == 0) {
    const std::string locks = path_ + "-orders";
    ASSERT_EQ(chown(locks.c_str(), 12345, 0), 0);
    EXPECT_THROW(ProfileOrders(path_).order("Shop", 1), SqliteError) << "another account's file";
    ASSERT_EQ(chown(locks.c_str(), 0, 0), 0);
  }

  store.begin();
  store.add(event(800, "1 5 enter action old"));
  store.commit();
  const int64_t before = client.last_event();
  store.begin();
  for (const auto& [at_ms, line] : {std::pair(801, "2 9 enter action a"), std::pair(3, "3 5 enter action b"),
                                    std::pair(4, "4 9 leave action a")}) {
    store.add(event(at_ms, line));
  }
  store.commit();
  EXPECT_EQ(events_of(before), "5b9a9a") << "though the clock was set back";
  EXPECT_EQ(ProfileOrders(path_).stop("Shop"), 1);
  EXPECT_TRUE(client.ended(order));
  EXPECT_TRUE(store.open_orders(1).empty());
  while (store.maintain({})) continue;
  EXPECT_EQ(events_of(before), "5b9a9a") << "its client may still print it";
}

TEST_F(StoreTest, WhatAProfileLeavesGoesWithItsClient) {
  Store store(path_);
  auto add_event = [&](const char* line) {
    store.begin();
    store.add(event(800, line));
    store.commit();
    while (store.maintain({})) continue;
  };
  std::optional<ProfileOrders> client(std::in_place, path_);
  client->order("Shop", 30);
  store.open_orders(1);
  add_event("1 1 enter action kept");
  EXPECT_EQ(events_of(0), "1kept");
  client.reset();  // as when its process is killed
  EXPECT_TRUE(store.open_orders(2).empty());
  add_event("2 1 enter action late");
  EXPECT_EQ(events_of(0), "") << "nobody waits for them";
  EXPECT_TRUE(open_profiles(path_).empty());
}

TEST_F(StoreTest, GivesEachNumberOnceWhateverWasRemovedMeanwhile) {
  add({metric(1, "Shop"), metric(2, "Shop")});
  keep({0, 0});
  add({metric(3, "Shop")});
  auto rows = open_sqlite_reader(path_)->actions({});
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].id, 3);
}
