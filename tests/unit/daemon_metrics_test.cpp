// Counters for other systems: what they gain, and that they stay bounded.
#include "daemon_records.h"
#include "export/metric_text.h"
#include "export/request_totals.h"
#include "store/sqlite_reader.h"
#include "store/store.h"

#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

constexpr int64_t begin_ms = 1700000000000 / hour_ms * hour_ms;

class RequestTotalsTest : public testing::Test {
 protected:
  static StoredPacket packet(int64_t at_ms, const std::string& application, const std::string& name, int duration_ms) {
    return {0x0B, 42, at_ms, action_body(application, name, duration_ms)};
  }
  void add(const std::vector<StoredPacket>& packets) { add_to_store<Store>(path_, packets); }
  void add(int64_t at_ms, const std::string& application, const std::string& name, int duration_ms, size_t count = 1) {
    add(std::vector(count, packet(at_ms, application, name, duration_ms)));
  }
  void update(int64_t now_ms) { totals_.update(open_sqlite_reader(path_).get(), now_ms); }
  int64_t counted(const std::string& action, const std::string& application = "Shop") {
    const auto found = totals_.actions().find({application, action});
    return found == totals_.actions().end() ? -1 : found->second.count;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
  RequestTotals totals_;
};

TEST_F(RequestTotalsTest, GainWhatComesAfterTheyBeganOnceWheneverTheyAreAsked) {
  add(begin_ms, "Shop", "page", 10, 5);
  update(begin_ms + 1000);
  EXPECT_EQ(counted("page"), -1) << "it was there before";
  add(begin_ms + 2000, "Shop", "page", 10, 2);
  update(begin_ms + 3000);
  update(begin_ms + 3000);
  EXPECT_EQ(counted("page"), 2);
  add(begin_ms + 4000, "Shop", "page", 10, 3); // waited for the disk
  update(begin_ms + 2 * minute_ms);
  EXPECT_EQ(counted("page"), 5);
  add(begin_ms + 2 * minute_ms + 1, "Shop", "page", 10);
  add(begin_ms + 30 * minute_ms, "Shop", "page", 10); // while nobody asks for an hour
  add(begin_ms + 61 * minute_ms, "Shop", "page", 10);
  update(begin_ms + 62 * minute_ms);
  EXPECT_EQ(counted("page"), 8);
  update(begin_ms); // the clock was set back
  add(begin_ms + 5000, "Shop", "page", 10);
  update(begin_ms + 6000);
  EXPECT_EQ(counted("page"), 9);
}

TEST_F(RequestTotalsTest, BeginWithTheFirstRequestOfANewStore) {
  totals_.update(nullptr, begin_ms);
  add(begin_ms + 1, "Shop", "page", 7);
  add(begin_ms + 2, "Shop", "page", 4000);
  add(begin_ms + 3, "Shop", "page", 60000);
  update(begin_ms + 1000);
  ASSERT_EQ(counted("page"), 3);
  const RequestCounts& counts = totals_.applications().at({"Shop", ""});
  EXPECT_EQ(counts.total_us, 64007000);
  EXPECT_EQ((std::vector(counts.durations.begin(), counts.durations.end())),
            (std::vector<int64_t>{0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 1}));
}

TEST_F(RequestTotalsTest, KeepTheBusiestApartAndLoseNone) {
  totals_.update(nullptr, begin_ms);
  constexpr size_t applications = RequestTotals::most_applications + 10;
  std::vector<StoredPacket> packets;
  for (size_t i = 0; i < 4 * applications; i++)
    packets.push_back(packet(begin_ms + 1, "app" + std::to_string(i / 4), "page" + std::to_string(i % 4), 10));
  add(packets);
  update(begin_ms + 1000);
  add(begin_ms + 2000, "Late", "slow", 1000);
  update(begin_ms + 3000);
  EXPECT_LE(totals_.applications().size(), RequestTotals::most_applications + 1);
  EXPECT_LE(totals_.actions().size(), RequestTotals::most_actions + RequestTotals::most_applications + 1);
  EXPECT_EQ(counted("slow", "Late"), 1) << "it took the place of one that is less busy";
  int64_t all = 0;
  for (const auto& [labels, counts] : totals_.applications()) all += counts.count;
  EXPECT_EQ(all, 4 * static_cast<int64_t>(applications) + 1 - 4) << "those of the one that lost its place went with it";
}

TEST(MetricText, EscapesLabelsAndNamesCountersAsTheFormatHasThem) {
  for (const auto format : {MetricFormat::prometheus, MetricFormat::open_metrics}) {
    MetricText text(format);
    text.family("requests", MetricType::counter, "All.");
    text.sample({{"name", "a\"b\\c\nd"}}, 3);
    text.family("cpu_seconds", MetricType::gauge, "Time.");
    text.seconds({}, 1500000);
    const std::string family = format == MetricFormat::prometheus ? "requests_total" : "requests";
    EXPECT_EQ(text.end(), "# HELP " + family + " All.\n# TYPE " + family + " counter\nrequests_total{name=\"a\\\"b\\\\c\\nd\"} 3\n" +
                              "# HELP cpu_seconds Time.\n# TYPE cpu_seconds gauge\ncpu_seconds 1.5\n" +
                              (format == MetricFormat::open_metrics ? "# EOF\n" : ""));
  }
}
