// The radar's record and its tables.
#include "base/clock.h"
#include "daemon_records.h"
#include "facts/radar.h"
#include "print/report_radar.h"
#include "store/sqlite_radar.h"
#include "store/store.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace quorbit;
using namespace quorbit_test;

namespace {

std::string site(int line, int sign, int evidence, std::string_view name, std::string_view function = "") {
  const char head[] = {static_cast<char>(sign), static_cast<char>(evidence), static_cast<char>(name.size())};
  return record(0x02, number(line) + std::string(head, 3) + std::string(name) + std::string(function));
}
std::string function(int line, int called, std::string_view name) {
  return record(0x03, number(line) + static_cast<char>(called) + std::string(name));
}
const std::string file = record(0x01, "/s/db.php");

}  // namespace

TEST(Radar, ReadsWhatItKnowsAndSkipsTheRest) {
  const std::string good = file + site(9, ZQ_SIGN_CALL, 1, "mysql_connect", "Db::open") + function(7, 0, "Db::open");
  const RadarFindings found = {{{"/s/db.php", 9, ZQ_SIGN_CALL, "mysql_connect", "Db::open", true}}, {{"/s/db.php", 7, "Db::open", false}}};
  EXPECT_EQ(read_radar(good), found);
  for (const std::string& more : {record(0x77, "later"), site(1, ZQ_SIGN_CALL, 0, "strlen"), site(1, 200, 0, "each"), record(0x02, "short"),
                                  record(0x02, number(1) + "\x01\x00\xFFname"s), record(0x03, number(1)), function(1, 0, "")})
    EXPECT_EQ(read_radar(good + more), found);
  EXPECT_EQ(read_radar(site(9, ZQ_SIGN_CALL, 1, "each") + function(1, 1, "f")), RadarFindings()) << "of no file";
  EXPECT_EQ(read_radar(good + "\x02"), std::nullopt);
  std::string packet = action_body("Shop", "cart", 5, record(0x61, good) + record(0x16, number(4)));
  EXPECT_EQ(take_radar(packet), good);
  EXPECT_EQ(packet, action_body("Shop", "cart", 5, record(0x16, number(4))));
}

TEST(Radar, KnowsVersions) {
  for (auto [text, version] : {std::pair{"8.3", 803}, {"7", 700}, {"7.10", 710}, {"x", 0}, {"8.x", 0}, {"4", 0}, {"", 0}})
    EXPECT_EQ(read_version(text).value_or(0), version) << text;
  EXPECT_EQ(version_text(804), "8.4");
}

class RadarStoreTest : public testing::Test {
 protected:
  void add(int64_t at_ms, const std::string& application, const std::string& items) {
    Store store(path_);
    store.begin();
    store.add(StoredPacket{0x0B, 42, at_ms, action_body(application, "cart", 5, record(0x61, items))});
    store.limit_tables();
    store.commit();
  }
  RadarAnswer ask(const RadarQuestion& question) { return find_on_radar(path_, question); }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
  const int64_t now_ms_ = wall_clock_ms();
};

TEST_F(RadarStoreTest, SaysWhatMustChangeBeforeWhichVersion) {
  const std::string sites = file + site(9, ZQ_SIGN_CALL, 0, "split") + site(9, ZQ_SIGN_CALL, 1, "split") + site(4, ZQ_SIGN_CALL, 0, "each", "f") +
                            site(2, ZQ_SIGN_CALL, 0, "eregi");
  add(now_ms_ - 5000, "Shop", sites + function(3, 1, "f"));
  add(now_ms_, "Shop", file + site(9, ZQ_SIGN_CALL, 0, "split"));
  add(now_ms_, "Blog", file + site(1, ZQ_SIGN_CALL, 1, "utf8_encode"));
  const RadarAnswer all = ask({.now_ms = now_ms_});
  ASSERT_EQ(all.sites.size(), 4u);
  const RadarRow& split = all.sites[0];
  EXPECT_EQ(std::tuple(split.site.name, split.rule->version, split.reports, split.ran_reports, split.ran_ms, split.first_ms, split.last_ms),
            std::tuple("split", 700, 2, 1, now_ms_ - 5000, now_ms_ - 5000, now_ms_));
  EXPECT_EQ(all.sites[1].site.name, "eregi") << "what runs comes first";
  EXPECT_TRUE(all.sites[2].is_in_use && !all.sites[1].is_in_use);
  EXPECT_EQ(ask({.application = "Shop", .to_version = 704, .now_ms = now_ms_}).sites.size(), 2u);
  const RadarAnswer one = ask({.application = "Shop", .now_ms = now_ms_, .most = 1});
  EXPECT_EQ(std::tuple(one.sites.size(), one.sites_left_out, one.applications.size()), std::tuple(1u, 2, 2u));
  EXPECT_EQ(radar_csv(all).substr(radar_csv(all).find('\n') + 1, 44), "\"7.0\",\"removed\",\"split()\",\"/s/db.php\",\"9\",\"\"");
  const Json run = radar_sarif(all)["runs"][0];
  EXPECT_EQ(run["results"].size(), 4u);
  EXPECT_EQ(run["results"][3]["level"], "note");
  EXPECT_EQ(run["results"][0]["locations"][0]["physicalLocation"]["region"]["startLine"], 9);
}

TEST_F(RadarStoreTest, ShowsEachUseWithItsPlacesUncut) {
  const std::string folder = "/s/" + std::string(90, 'x');
  add(now_ms_ - 5000, "Shop", file + site(9, ZQ_SIGN_CALL, 1, "split") + site(4, ZQ_SIGN_CALL, 0, "eregi") + record(0x01, folder + "/a #\xC3\xA4.php") +
                                  site(2, ZQ_SIGN_CALL, 0, "split"));
  const RadarQuestion question{.application = "Shop", .to_version = 700, .now_ms = now_ms_};
  const RadarAnswer answer = ask(question);
  EXPECT_EQ(radar_text(answer, question, 80),
            "PHP 7.0: 3 places, 1 seen running\n\n"
            "split()\n  removed          the function is gone: a fatal error\n  instead          explode(), or preg_split() for a pattern\n"
            "  ran 5 s ago      /s/db.php:9\n  not seen         " + folder + "/a #\xC3\xA4.php:2\n\n"
            "eregi()\n  removed          the function is gone: a fatal error\n  instead          preg_match()\n  not seen         /s/db.php:4\n");
  EXPECT_NE(radar_sarif(answer).dump().find("file://" + folder + "/a%20%23%C3%A4.php"), std::string::npos);
  EXPECT_EQ(radar_text({}, {.to_version = 506}, 80).substr(0, 51), "Nothing found yet that must change before PHP 5.6. ");
}

TEST_F(RadarStoreTest, ListsFunctionsThatNobodyCallsOnceTheyAreKnownForLong) {
  const int64_t old_ms = now_ms_ - 40 * day_ms;
  add(old_ms, "Shop", file + function(1, 0, "never") + function(2, 1, "once") + function(3, 0, "called") + function(4, 0, "gone"));
  add(now_ms_, "Shop", file + function(1, 0, "never") + function(2, 0, "once") + function(3, 1, "called") + function(5, 0, "new"));
  std::string names;
  for (const UnusedFunction& each : ask({.now_ms = now_ms_}).functions) names += each.name + " ";
  EXPECT_EQ(names, "never once ");
  EXPECT_TRUE(ask({.now_ms = now_ms_, .unused_days = 50}).functions.empty());
}

TEST_F(RadarStoreTest, ForgetsWhatWasNotSeenFor90Days) {
  add(now_ms_ - 91 * day_ms, "Shop", file + site(1, ZQ_SIGN_CALL, 0, "each"));
  add(now_ms_ - 89 * day_ms, "Shop", file + site(2, ZQ_SIGN_CALL, 0, "each"));
  ASSERT_EQ(ask({.now_ms = now_ms_}).sites.size(), 1u);
  EXPECT_EQ(ask({.now_ms = now_ms_}).sites[0].site.line, 2);
}
