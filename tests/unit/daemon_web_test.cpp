// Sessions of the page, and the addresses that it may listen on.
#include "base/address.h"
#include "web/sessions.h"

#include <gtest/gtest.h>

using namespace quorbit;

TEST(Sessions, LastFromTheirLastUse) {
  constexpr int64_t idle = Sessions::idle_ms;
  Sessions sessions("access");
  Session used, unused;
  ASSERT_EQ(sessions.open("access", 0, used), Entry::granted);
  ASSERT_EQ(sessions.open("access", 0, unused), Entry::granted);
  EXPECT_TRUE(sessions.find(used.cookie, idle - 1));
  EXPECT_FALSE(sessions.find(used.token, idle - 1)) << "what orders show opens nothing";
  EXPECT_FALSE(sessions.find(unused.cookie, idle));
  EXPECT_TRUE(sessions.find(used.cookie, 2 * idle - 2));
  EXPECT_FALSE(sessions.find(used.cookie, 3 * idle - 2));
}

TEST(Sessions, GiveWayWhenTheyAreTheLeastUsedOfTooMany) {
  Sessions sessions("access");
  Session first, second, other;
  sessions.open("access", 0, first);
  sessions.open("access", 1, second);
  for (size_t i = 2; i < Sessions::most_sessions; i++) sessions.open("access", 2, other);
  EXPECT_TRUE(sessions.find(first.cookie, 3));
  sessions.open("access", 4, other);
  EXPECT_TRUE(sessions.find(first.cookie, 5));
  EXPECT_FALSE(sessions.find(second.cookie, 5));
}

TEST(ListenAddress, IsAnAddressWithAPortOrASocket) {
  const std::string longest = "/" + std::string(106, 'x');
  const std::pair<std::string, const char*> rows[] = {
      {"127.0.0.1:1", "http://127.0.0.1:1"}, {"0.0.0.0:65535", "http://0.0.0.0:65535"}, {"[::1]:80", "http://[::1]:80"},
      {"unix:" + longest, "http://localhost"}, {"127.0.0.1:65536", ""}, {"127.0.0.1:0", ""}, {"127.0.0.1:-1", ""},
      {"127.0.0.1:4294967297", ""}, {"127.0.0.1", ""}, {"::1:80", ""}, {"[127.0.0.1]:80", ""}, {"localhost:80", ""},
      {"unix:" + longest + "x", ""}, {"unix:x", ""}};
  for (const auto& [text, origin] : rows) {
    std::string found;
    try {
      found = parse_listen(text).origin();
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(found, origin) << text;
  }
}
