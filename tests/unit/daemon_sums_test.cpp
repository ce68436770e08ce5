// Sums by minute and hour: what is derived of an action, that each counts once, and what questions make of it.
#include "base/number.h"
#include "daemon_records.h"
#include "facts/keys.h"
#include "facts/places.h"
#include "facts/plan.h"
#include "facts/rank_test.h"
#include "facts/rate_test.h"
#include "facts/sql_text.h"
#include "receive/killed_packet.h"
#include "store/comparison.h"
#include "store/releases.h"
#include "store/sqlite_reader.h"
#include "store/store.h"
#include "store/sum_source.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace quorbit;
using namespace quorbit_test;

constexpr int64_t begin_ms = 1700000000000 / hour_ms * hour_ms;

TEST(Histogram, KeepsPercentilesWithinItsErrorAlsoThroughItsCompactForm) {
  Histogram halves[2], read;
  std::vector<int64_t> all;
  int64_t us = 3;
  for (int i = 0; i < 2000; i++, us = us * 7919 % 900001 + i) {
    all.push_back(us);
    halves[i % 2].add(us);
  }
  std::sort(all.begin(), all.end());
  std::string bytes;
  halves[0].write(bytes);
  ASSERT_TRUE(read.read(bytes));
  read.add(halves[1]);
  for (double share : {0.01, 0.5, 0.95, 0.99, 1.0}) {
    const auto exact = static_cast<double>(all[static_cast<size_t>(share * 2000) - 1]);
    EXPECT_NEAR(static_cast<double>(read.percentile_us(share)), exact, exact * Histogram::relative_error + 0.5) << share;
  }
  EXPECT_EQ(read.count(), 2000);
  EXPECT_FALSE(read.read("\x7f\xff")) << "a count that is cut";
  EXPECT_FALSE(read.read("\xff\x7f\x01")) << "a bucket that is none";
  Histogram nothing, longest;
  longest.add(int64_t{1} << 60);
  EXPECT_EQ(nothing.percentile_us(0.5), 0);
  EXPECT_GT(longest.percentile_us(0.5), int64_t{1} << 47);
}

TEST(Sums, AreAddedThroughTheirBytesWithEveryDigit) {
  constexpr int64_t large = (int64_t{1} << 60) + 1;
  Sums sums, read;
  int64_t Sums::*const fields[] = {&Sums::count, &Sums::errors, &Sums::total_us, &Sums::database_us, &Sums::cache_us,
                                   &Sums::external_us, &Sums::code_us, &Sums::waiting_us, &Sums::cpu_us, &Sums::statements};
  for (size_t i = 0; i < std::size(fields); i++) sums.*fields[i] = large + static_cast<int64_t>(i);
  sums.slowest_us = sums.newest_id = large, sums.slowest_id = large - 3, sums.chance_id = large - 5;
  for (int twice = 0; twice < 2; twice++) ASSERT_TRUE(read.add_bytes(sums.bytes()));
  for (size_t i = 0; i < std::size(fields); i++) EXPECT_EQ(read.*fields[i], 2 * (large + static_cast<int64_t>(i))) << i;
  EXPECT_EQ((std::vector{read.slowest_us, read.slowest_id, read.newest_id, read.chance_id}), (std::vector{large, large - 3, large, large - 5}));
  for (int more = 0; more < 9; more++) read.add(Sums(read));
  EXPECT_EQ(read.count, most_sum) << "which is where damaged sums end";
}

TEST(Keys, AreWhatAnActionIsSummedUpBy) {
  auto sql = [](int ms, const std::string& text) {
    const std::string duration = std::to_string(ms);
    return record(0x27, std::to_string(duration.size()) + ":" + duration + "5:MySQL" + std::to_string(text.size()) + ":" + text);
  };
  auto figure = [](int item, int value) { return record(item, number(value) + number(0)); };
  const std::string body = action_body("Shop", "cart", 100,
      record(0x16, number(9)) + sql(4, "SELECT 1 FROM `t` WHERE a=1") + sql(5, "SELECT 2 FROM `t` WHERE a='x'") +
          record(0x29, "http\nhttp:%2F%2Fapi%2Fitem%2F*/curl_exec\n\n30") + record(0x29, "Redis\n\nGET\n7") +
          record(0x2D, "External/http:%2F%2Fapi%2Fitem%2F*/curl_exec\n500\n500\nno\n\n") +
          record(0x2A, "1\n500\nOops\nUncaught exception 'Oops' with message 'no 'x' in 42' in /b.php:3\n") + record(0x2B, "5\n2\nPHP/A/b") +
          record(0x60, figure(0x01, 100000) + figure(0x02, 9000) + figure(0x03, 7000) + figure(0x04, 30000) + figure(0x06, 2) +
                           record(0x21, "\1\0\1\0\1\0\0\0"s) + record(0x20, number(7) + "\5MySQL/wpdb.php"s) +
                           record(0x22, number(40) + "/theme.php") + record(0x20, number(9) + "\5MySQL/cart.php"s)));
  std::string found;
  for (const KeySums& key : keys_of(*read_action(body))) {
    found += std::to_string(static_cast<int>(key.kind)) + " " + key.facts.name + " " + std::to_string(key.sums.count) + "/" +
             std::to_string(key.sums.errors) + " " + std::to_string(key.sums.total_us) + " " +
             Place{key.facts.place, key.facts.caller}.text() + "\n";
  }
  EXPECT_EQ(found,
            "1 cart 1/1 100000 \n"
            "3 SELECT ? FROM `t` WHERE a=? 2/0 9000 /wpdb.php:7, called from /theme.php:40\n"
            "4 Oops: no '…' in # at /b.php:3 1/1 100000 /b.php:3\n"
            "5 http://api/item/* (curl_exec) 1/1 30000 \n"
            "6 Redis GET 1/0 7000 \n"
            "7 PHP/A/b 1/0 5000 \n");
}

TEST(Keys, LoseTheValuesOfMessages) {
  EXPECT_EQ(mask_message("can't open 'a.txt' in \"x\", line 17"), "can't open '\u2026' in \"\u2026\", line #");
}

TEST(Keys, AreBoundedInOneAction) {
  std::string more;
  for (int i = 0; i < 300; i++) more += record(0x2B, "1\n1\nPHP/A/" + std::string(static_cast<size_t>(i + 1), 'x'));
  const auto keys = keys_of(*read_action(action_body("Shop", "cart", 100, more)));
  EXPECT_EQ(keys.size(), 202u);
  EXPECT_EQ(keys.back().facts.name, other_keys);
  EXPECT_EQ(keys.back().sums.count, 100);
}

TEST(Keys, NameWhatAStatementIsAbout) {
  const struct {
    const char *kind, *verb, *table;
  } rows[] = {{"select a from `t1` where b = ?", "SELECT", "t1"},  {"INSERT INTO s.t (a) VALUES (?)", "INSERT", "s.t"},
              {"UPDATE t SET a = ?", "UPDATE", "t"},               {"DELETE FROM t WHERE a = ?", "DELETE", "t"},
              {"SELECT a FROM (SELECT b FROM inner_t) x", "SELECT", "inner_t"}, {"COMMIT", "COMMIT", ""}, {"", "", ""}};
  for (const auto& row : rows) {
    const SqlSubject subject = subject_of_sql(row.kind);
    EXPECT_EQ(subject.verb + " " + subject.table, std::string(row.verb) + " " + row.table);
  }
}

TEST(Plan, SuggestsAnIndexOnlyWhereOneFollows) {
  const char* mysql = R"({"keys":["type","table","possible_keys","rows"],"values":[["ALL","%s","%s","60000"]]})";
  const struct {
    const char *table, *keys, *statement, *suggestion;
  } rows[] = {
      {"reviews", "", "SELECT avg(s) FROM reviews WHERE product = 5",
       "no index serves product = ?: CREATE INDEX reviews_product ON reviews (product)"},
      {"r", "", "SELECT * FROM shop.reviews r WHERE r.stars > 3 AND r.product IN (1, 2) ORDER BY x",
       "no index serves stars > ?: CREATE INDEX reviews_product_stars ON shop.reviews (product, stars)"},
      {"reviews", "stars", "SELECT * FROM reviews WHERE stars > 0",
       "there is an index, but the database reads the table all the same: too many rows match, or its statistics are old"},
      {"reviews", "", "SELECT * FROM reviews WHERE body LIKE '%x%'",
       "no index finds what a LIKE that begins with % looks for: a full-text index would, or a pattern without it"},
      {"reviews", "", "SELECT * FROM reviews WHERE body LIKE 'x%'", ""},
      {"reviews", "", "SELECT * FROM reviews WHERE lower(name) = 'x'", ""},
      {"reviews", "", "SELECT * FROM reviews WHERE a = 1 OR b = 2", ""},
      {"reviews", "", "SELECT * FROM reviews", ""},
      {"reviews", "", "SELECT * FROM reviews JOIN p ON p.id = product WHERE p.x = 1", ""},
  };
  for (const auto& row : rows) {
    char plan[200];
    snprintf(plan, sizeof plan, mysql, row.table, row.keys);
    EXPECT_EQ(plan_suggestion(Json::parse(plan), row.statement, normalise_sql(row.statement, "MySQL")), row.suggestion) << row.statement;
  }
}

class SumsTest : public testing::Test {
 protected:
  static StoredPacket packet(int64_t at_ms, const std::string& name, int duration_ms, const std::string& more = "") {
    return {0x0B, 42, at_ms, action_body("Shop", name, duration_ms, more)};
  }
  void add(const std::vector<StoredPacket>& packets) { add_to_store<Store>(path_, packets); }
  int64_t count(const TimeRange& range = {}, SumKey key = SumKey::action) {
    SumQuestion question;
    question.key = key;
    question.filter.range = range;
    return open_sqlite_reader(path_)->sums(question).all.count;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
};

TEST_F(SumsTest, CountEachActionOnceWhateverEndsTheDaemon) {
  int64_t stored = 0;
  for (int life = 0; life < 3; life++) {
    Store store(path_); // never told to end
    for (int commit = 0; commit < 40; commit++) {
      store.begin();
      for (int i = 0; i < 20; i++) store.add(packet(begin_ms + commit * 1000, "page" + std::to_string(i), 10));
      if (commit % 10 == 3) {
        store.abandon();
        continue;
      }
      store.commit();
      stored += 20;
    }
  }
  Store(path_).write_sums();
  EXPECT_EQ(count(), stored);
  EXPECT_EQ(static_cast<int64_t>(open_sqlite_reader(path_)->actions({{}, ActionOrder::newest, 100000}).size()), stored);
}

TEST_F(SumsTest, TellApartAsManyKeysOfAMinuteAsThereMayBe) {
  std::vector<StoredPacket> packets;
  for (int i = 0; i < most_minute_keys + 500; i++) packets.push_back(packet(begin_ms, "page" + std::to_string(i), 10));
  add(packets);
  SumQuestion question;
  question.order = SumOrder::count;
  question.most = 1;
  const SumAnswer answer = open_sqlite_reader(path_)->sums(question);
  ASSERT_EQ(answer.rows.size(), 1u);
  EXPECT_EQ(answer.rows[0].key.name + " " + answer.rows[0].key.application, "(others) Shop");
  EXPECT_EQ(answer.rows[0].sums.count, 500);
  EXPECT_EQ(answer.left_out, most_minute_keys);
}

TEST_F(SumsTest, AreTakenFromMinutesAtTheEdgesAndFromHoursOnceMinutesAreGone) {
  std::vector<StoredPacket> packets;
  for (int minute = 0; minute < 180; minute++) packets.push_back(packet(begin_ms + minute * minute_ms + 5, "page", 10));
  add(packets);
  const struct {
    int64_t from, until, before, after; // minutes; actions while there are minutes, and later
  } rows[] = {{0, 180, 180, 180}, {30, 150, 120, 180}, {60, 120, 60, 60}, {61, 62, 1, 60}, {179, 500, 1, 60}, {200, 300, 0, 0}};
  for (const auto& row : rows) EXPECT_EQ(count({begin_ms + row.from * minute_ms, begin_ms + row.until * minute_ms}), row.before) << row.from;
  SeriesQuestion series;
  series.step_ms = 10 * minute_ms;
  EXPECT_EQ(open_sqlite_reader(path_)->series(series).size(), 18u);

  Store store(path_); // minutes of so long ago go
  StoreBounds bounds;
  bounds.sums.hour_days = 3650;
  while (store.maintain(bounds)) continue;
  for (const auto& row : rows) EXPECT_EQ(count({begin_ms + row.from * minute_ms, begin_ms + row.until * minute_ms}), row.after) << row.from;
  EXPECT_EQ(open_sqlite_reader(path_)->series(series).size(), 3u);
  bounds.sums = {3, 90, 0};
  Store later(path_);
  while (later.maintain(bounds)) continue;
  EXPECT_EQ(count(), 0) << "hours go as well";
}

// Two days of a fleet with more rows of minutes than it wants to add up.
struct Crowded : SumSource {
  std::vector<bool> asked; // for hours, of each part

  KeptSums kept() override { return {480'000, 480'047, 480'000 * 60, 480'048 * 60 - 1}; }
  void each(const SumPlan& plan, KeyKind, const SumFilter&, const std::function<void(const FoundSums&)>&) override {
    for (const SumPart& part : plan.parts()) asked.push_back(part.hours);
  }
  bool has_too_many_minutes(const SumPlan&, KeyKind, const SumFilter&) override { return true; }
  std::unordered_map<int64_t, KeyFacts> keys(const std::vector<int64_t>&) override { return {}; }
  std::unordered_set<int64_t> actions_there(const std::vector<int64_t>&) override { return {}; }
};

TEST(SumSeries, IsMadeOfHoursWhereMinutesWouldTakeTooLongUnlessThatWouldBeFewPoints) {
  for (const auto& [length, hours] : {std::pair{24, true}, {6, true}, {5, false}}) {
    Crowded source;
    answer_series(source, {.filter = {.range = {480'010 * hour_ms, (480'010 + length) * hour_ms}}, .step_ms = 5 * minute_ms});
    EXPECT_EQ(source.asked, std::vector{hours}) << length;
  }
}

TEST_F(SumsTest, HaveTheAverageOfEachLookAtTheMachine) {
  Store store(path_);
  store.begin();
  store.add(HostSample{1, int64_t{4} << 30, 1000, {{"www", {3, 1, 5}}}}, begin_ms);
  store.add(HostSample{2, int64_t{4} << 30, 2000, {{"www", {0, 4}}, {"jobs", {2, 0}}}}, begin_ms + 1000);
  store.commit();
  MachineQuestion question;
  question.step_ms = hour_ms;
  const auto rows = open_sqlite_reader(path_)->machine(question);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ((std::vector{rows[0].at_ms, rows[0].memory_bytes, rows[0].available_bytes}), (std::vector{begin_ms, int64_t{4} << 30, int64_t{1500}}));
  EXPECT_EQ(rows[0].load, 1.5);
  std::string pools;
  for (const PoolRow& pool : rows[0].pools)
    pools += pool.name + " " + std::to_string(pool.busy * 2) + " " + std::to_string(pool.idle * 2) + " " + std::to_string(pool.most_busy) + " " + std::to_string(pool.waiting * 2) + " " + std::to_string(pool.most_waiting) + "\n";
  EXPECT_EQ(pools, "jobs 2.000000 0.000000 2 0.000000 0\nwww 3.000000 5.000000 3 5.000000 5\n");
}

TEST_F(SumsTest, SayWhatWasInWhichAction) {
  const std::string sql = record(0x27, "1:45:MySQL8:SELECT 1");
  add({packet(begin_ms, "a", 10, sql + sql), packet(begin_ms, "a", 10, sql + sql), packet(begin_ms, "b", 10, sql)});
  auto reader = open_sqlite_reader(path_);
  SumQuestion queries;
  queries.key = SumKey::query;
  const auto query = reader->sums(queries).rows.at(0);
  EXPECT_EQ(query.sums.count, 5);
  SumQuestion question;
  question.filter.within = query.key.id;
  const auto actions = reader->sums(question).rows;
  ASSERT_EQ(actions.size(), 2u);
  EXPECT_EQ(actions[0].key.name, "a");
  EXPECT_EQ((std::vector{actions[0].sums.count, actions[0].sums.statements}), (std::vector<int64_t>{2, 4}));
  queries.filter.within = actions[1].key.id;
  EXPECT_EQ(reader->sums(queries).rows.at(0).sums.statements, 1);
  queries.filter.within = 0;
  add({packet(begin_ms + 120000, "a", 10, sql)});
  EXPECT_EQ(reader->sums(queries).rows.at(0).key.last_ms - query.key.last_ms, 120000) << "seen again by the next daemon";
}

TEST_F(SumsTest, FollowTheFilterAndTheOrder) {
  add({packet(begin_ms, "x", 15), packet(begin_ms, "cart", 10), packet(begin_ms, "cart", 10), packet(begin_ms, "carts", 50, record(0x2A, "1\n500\nE\nm\n"))});
  auto reader = open_sqlite_reader(path_);
  auto names = [&](SumOrder order, const std::string& glob, int64_t most = 10) {
    SumQuestion question;
    question.order = order;
    question.most = most;
    question.filter.name_glob = glob;
    std::string text;
    for (const SumRow& row : reader->sums(question).rows) text += row.key.name + " ";
    return text;
  };
  EXPECT_EQ(names(SumOrder::total, ""), "carts cart x ");
  EXPECT_EQ(names(SumOrder::count, "c*"), "cart carts ");
  EXPECT_EQ(names(SumOrder::average, ""), "carts x cart ");
  EXPECT_EQ(names(SumOrder::errors, "cart?"), "carts ");
  EXPECT_EQ(names(SumOrder::errors, ""), "carts cart x ") << "what is equal comes by name";
  EXPECT_EQ(names(SumOrder::errors, "", 2), "carts cart ");
}

TEST_F(SumsTest, ComparisonsCallNothingSlowerByChance) {
  std::vector<StoredPacket> packets;
  auto times = [&](int64_t at_ms, const std::string& name, int count, int duration_ms, int rare = 0, int rising = 0) {
    for (int i = 0; i < count; i++) {
      const std::string error = i < rare ? record(0x2A, "1\n500\nrare\nm\n") : i < rare + rising ? record(0x2A, "1\n500\nrising\nm\n") : "";
      packets.push_back(packet(at_ms + i, name, duration_ms + i % 7, error));
    }
  };
  for (int64_t at_ms : {begin_ms, begin_ms + hour_ms}) {
    const bool after = at_ms > begin_ms;
    times(at_ms, "same", 100, 50, after ? 8 : 3, after ? 40 : 5);
    times(at_ms, "slower", 100, after ? 80 : 50);
    times(at_ms, "faster", 100, after ? 20 : 50);
    times(at_ms, "few", 5, after ? 500 : 50);
    if (after) times(at_ms, "appeared", 100, 10);
    if (!after) times(at_ms, "vanished", 100, 10);
  }
  add(packets);
  auto reader = open_sqlite_reader(path_);
  const Comparison comparison = compare(*reader, {{begin_ms, begin_ms + hour_ms}, {begin_ms + hour_ms, begin_ms + 2 * hour_ms}});
  std::string found;
  for (const Change& change : comparison.changes) found += change.facts.name + std::to_string(static_cast<int>(change.kind)) + " ";
  EXPECT_EQ(found, "slower2 appeared0 rising: m1 vanished5 faster3 ");
  EXPECT_NEAR(comparison.changes[0].lost_us_per_hour, 3000000, 1);
  EXPECT_EQ((std::pair{comparison.compared, comparison.too_few}), (std::pair<int64_t, int64_t>{6, 1}));
}

TEST_F(SumsTest, RequestsThatWereKilledCountAsErrorsAndShowInComparisons) {
  BoardSlot slot;
  slot.application = "Shop", slot.action = "WebAction/cart", slot.method = "GET", slot.function = "pay";
  std::vector<StoredPacket> packets;
  for (int i = 0; i < 200; i++) packets.push_back(packet(begin_ms + (i % 2) * hour_ms + i, "WebAction/cart", 50 + i % 7));
  for (int i = 0; i < 30; i++)
    packets.push_back({0x0B, 42, begin_ms + hour_ms + i, packet_of_killed(slot, {KillReason::timeout, 15}, 60000)});
  add(packets);
  auto reader = open_sqlite_reader(path_);
  const auto rows = reader->sums({}).rows;
  ASSERT_EQ(rows.size(), 1u) << "under the name that the others have";
  EXPECT_EQ((std::pair{rows[0].sums.count, rows[0].sums.errors}), (std::pair<int64_t, int64_t>{230, 30}));
  const auto changes = compare(*reader, {{begin_ms, begin_ms + hour_ms}, {begin_ms + hour_ms, begin_ms + 2 * hour_ms}}).changes;
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].kind, ChangeKind::appeared);
  EXPECT_EQ(changes[0].facts.name, "Killed: The process ended by FPM's request_terminate_timeout in PHP, pay");
  EXPECT_EQ(changes[0].after.count, 30);
}

TEST(RateTest, AgreesWithFiguresWorkedOutByHand) {
  // Of 25 errors 20 or more after, where each is as likely before: 68,406 of 2^25 ways, twice.
  EXPECT_NEAR(rate_test(5, 1000, 20, 1000), 2.0 * 68406 / (1 << 25), 1e-9);
  EXPECT_NEAR(rate_test(20, 300, 5, 300), 2.0 * 68406 / (1 << 25), 1e-9);
  EXPECT_EQ(rate_test(10, 1000, 20, 2000), 1) << "twice the actions";
  EXPECT_GT(rate_test(1000000, 2000000, 1001000, 2000000), 0.4) << "chance makes as much of a million";
  EXPECT_EQ(rate_test(1, 0, 5, 10), 1);
}

TEST(RankTest, AgreesWithFiguresWorkedOutByHand) {
  // Of 1 to 20 against 11 to 30, ten tied in pairs, U is 350 of 400 and its deviation 36.95: z = 4.046 with the correction for continuity.
  Histogram before, after;
  int64_t us = 10;
  for (int i = 0; i < 30; i++, us = us * 11 / 10 + 1) {
    if (i < 20) before.add(us);
    if (i >= 10) after.add(us);
  }
  const RankTest test = rank_test(before, after);
  EXPECT_NEAR(test.longer, 0.875, 1e-9);
  EXPECT_NEAR(test.p, 5.3e-5, 0.3e-5);
  EXPECT_EQ(rank_test(before, before).p, 1);
}

TEST_F(SumsTest, ReleasesAreKeptByApplication) {
  Store(path_, nullptr);
  mark_release(path_, {1000, "1.0", ""});
  mark_release(path_, {2000, "1.1", "Shop"});
  auto reader = open_sqlite_reader(path_);
  EXPECT_EQ(reader->releases("").size(), 2u);
  EXPECT_EQ(reader->releases("Api").size(), 1u);
  EXPECT_EQ(reader->releases("Shop").back().name, "1.1");
}

TEST(Releases, AreComparedFromTheOneBeforeUntilTheNext) {
  const std::vector<ReleaseRow> releases = {{100 * minute_ms, "a", ""}, {130 * minute_ms, "b", ""}, {200 * minute_ms, "c", ""}};
  const CompareQuestion middle = around_release(releases, "b", 1000 * minute_ms);
  EXPECT_EQ((std::vector{middle.before.from_ms, middle.before.until_ms, middle.after.from_ms, middle.after.until_ms}),
            (std::vector{101 * minute_ms, 130 * minute_ms, 131 * minute_ms, 200 * minute_ms}));
  EXPECT_EQ(around_release(releases, "c", 1000 * minute_ms).after.until_ms, 1000 * minute_ms);
}
