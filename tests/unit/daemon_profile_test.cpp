// The sums of a thread profile, and the formats that other tools read.
#include "print/profile_formats.h"
#include "print/report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace quorbit;

namespace {

// Two threads: recursion, a call that exit ended, a leave without an enter, and one that the profile's end cut off.
struct Summed {
  ProfileWalk walk;
  CallTree tree;
  std::string speedscope;

  Summed() {
    const ProfileEvent events[] = {
        {"Shop", 1000, 1, true, "action", "Web"},       {"Shop", 1000, 1, true, "function", "main"},
        {"Shop", 1002, 1, true, "function", "walk"},    {"Shop", 1003, 1, true, "function", "walk"},
        {"Shop", 1013, 1, false, "function", "walk"},   {"Shop", 1014, 1, false, "function", "walk"},
        {"Shop", 1015, 1, false, "function", "absent"}, {"Shop", 1016, 1, true, "function", "a;\"b\""},
        {"Shop", 1020, 1, false, "action", "ok"},       {"Shop", 500, 2, true, "function", "main"},
        {"Shop", 499, 2, true, "function", "walk"},     {"Shop", 507, 2, false, "function", "walk"},
    };
    SpeedscopeWriter writer("Shop");
    auto add = [&](const std::vector<ProfileStep>& steps) {
      for (const ProfileStep& step : steps) {
        tree.add(step);
        speedscope += writer.add(step);
      }
    };
    for (const ProfileEvent& event : events) add(walk.add(event));
    add(walk.finish());
    speedscope += writer.finish(walk.names());
  }
};

}  // namespace

TEST(Profile, IsSummedByFunctionAndPath) {
  Summed profile;
  EXPECT_EQ(profile_text(profile.walk, profile.tree, 4, 100),
            "1 action in 2 threads, 6 calls, 27 ms; 1 call had not ended.\n\n"
            "CALLS    OWN  OWN%  TOTAL  TOTAL%  FUNCTION\n"
            "    3  19 ms   70%  19 ms     70%  walk\n"
            "    2   4 ms   15%  27 ms    100%  main\n"
            "    1   4 ms   15%   4 ms     15%  a;\"b\"\n"
            "    1   0 ms    0%  20 ms     74%  action Web\n"
            "\nWhere it was spent:\n"
            "CALLS    OWN  OWN%  PATH\n"
            "    1  10 ms   37%  action Web > main > walk > walk\n");
  EXPECT_NE(profile_text(profile.walk, profile.tree, 1, 40).find("... and 3 functions more (-n)\n"), std::string::npos);
}

TEST(Profile, IsWrittenForOtherTools) {
  Summed profile;
  std::string folded;
  put_folded(profile.tree, profile.walk.names(), [&](const std::string& line) { folded += line; });
  EXPECT_EQ(folded,
            "action Web;main 4\naction Web;main;walk 2\naction Web;main;walk;walk 10\naction Web;main;a_\"b\" 4\nmain;walk 7\n");
  const std::string callgrind = callgrind_text(profile.tree, profile.walk.names(), "Shop\nx");
  EXPECT_NE(callgrind.find("cmd: Shop_x\npositions: line\nevents: ms\nsummary: 27\n\nfl=(1) php\nfn=(1) action Web\n0 0\n"
                           "cfn=(2) main\ncalls=1 0\n0 20\n\nfl=(1)\nfn=(2) main\n0 4\ncfn=(3) walk\ncalls=2 0\n0 19\n"),
            std::string::npos)
      << callgrind;
  const Json speedscope = Json::parse(profile.speedscope);
  EXPECT_EQ(speedscope["shared"]["frames"][3]["name"], "a;\"b\"");
  ASSERT_EQ(speedscope["profiles"].size(), 2u);
  for (const Json& thread : speedscope["profiles"]) {
    std::vector<int> open;
    int at = thread["startValue"];
    for (const Json& event : thread["events"]) {
      EXPECT_GE(event["at"], at);
      at = event["at"];
      if (event["type"] == "O") {
        open.push_back(event["frame"]);
      } else {
        ASSERT_FALSE(open.empty());
        EXPECT_EQ(event["frame"], open.back());
        open.pop_back();
      }
    }
    EXPECT_TRUE(open.empty());
    EXPECT_EQ(thread["endValue"], at);
  }
}
