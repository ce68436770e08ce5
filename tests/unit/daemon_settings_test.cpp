// The agent's configuration file, the operator's settings with their stamps, and profiles on order.
#include "applications.h"
#include "config.h"
#include "daemon_records.h"
#include "profile_sessions.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <unistd.h>

using namespace quorbit;
using namespace quorbit_test;

TEST(DaemonConfig, ReadsWhatTheAgentWrites) {
  DaemonConfig config = parse_daemon_config(
      "zqs.ssl=TRUE\nzqs.audit_mode=FALSE\nzqs.daemon_log_level=DEBUG\nzqs.action_tracer.log_sql=FALSE\n"
      "zqs.agent_log_file_name=/r=t/log/quorbit/php-agent.log\nzqs.daemon_log_file_name=/r=t/log/quorbit/daemon.log\n"
      "zqs.pid_file=/r=t/log/quorbit/quorbit.pid\nzqs.ipc_listen_file=/r=t/log/quorbit/.quorbit.sock\n"
      "zqs.host=collector\nzqs.proxy_password=a=b\n");
  EXPECT_EQ(config.log_level, "DEBUG");
  EXPECT_EQ(config.log_file, "/r=t/log/quorbit/daemon.log");
  EXPECT_EQ(config.socket_file, "/r=t/log/quorbit/.quorbit.sock");
  EXPECT_EQ(config.store_file(), "/r=t/log/quorbit/quorbit.db");
  EXPECT_EQ(config.applications_file(), "/r=t/log/quorbit/applications.conf");
  EXPECT_EQ(config.lock_file(), "/r=t/log/quorbit/quorbit.pid.lock");
  EXPECT_EQ(default_daemon_config("/r=t").socket_file, config.socket_file) << "the commands look where the agent points";
}

TEST(DaemonConfig, RefusesAFileThatNamesNoPlaces) {
  EXPECT_THROW(parse_daemon_config(""), std::runtime_error);
  EXPECT_THROW(parse_daemon_config("zqs.pid_file=/p\n"), std::runtime_error);
  EXPECT_THROW(parse_daemon_config("zqs.ipc_listen_file=/s\nzqs.pid_file=\n"), std::runtime_error);
  EXPECT_EQ(parse_daemon_config("zqs.ipc_listen_file=/s\r\nzqs.pid_file=/d/p").socket_file, "/s") << "line ends of both kinds";
}

TEST(Applications, OverlayTheDefaultSectionByTheirOwn) {
  Applications file = parse_applications(
      "# comment\n"
      "store_mb = 64\n"
      "[*]\n"
      "zqs.agent_enabled = true\n"
      "zqs.action_tracer.action_threshold=500\n"
      "\n"
      "[ Shop:80 ]\r\n"
      "zqs.action_tracer.action_threshold = 100\r\n"
      "; another comment\n"
      "zqs.naming.rules = [\n"
      "  {\"name\": \"a = b\"} # no comment\n"
      "]\n"
      "zqs.urls_captured =\n"
      "[odd]name]\n"
      "zqs.capture_params = 1\n");
  EXPECT_EQ(file.store_mb, 64);
  EXPECT_EQ(settings_of(file, "unheard of"),
            (Settings{{"zqs.agent_enabled", "true"}, {"zqs.action_tracer.action_threshold", "500"}}));
  Settings shop = settings_of(file, "Shop:80");
  EXPECT_EQ(shop["zqs.agent_enabled"], "true");
  EXPECT_EQ(shop["zqs.action_tracer.action_threshold"], "100");
  EXPECT_EQ(shop["zqs.naming.rules"], "[\n{\"name\": \"a = b\"} # no comment");
  EXPECT_EQ(shop.count("zqs.urls_captured"), 1u) << "an empty value clears what the agent has";
  EXPECT_EQ(settings_of(file, "odd]name")["zqs.capture_params"], "1");
}

TEST(Applications, TellWhatIsWrongAndUseTheRest) {
  const struct {
    const char *text, *problem;
  } rows[] = {
      {"[Shop\nzqs.capture_params=1\n", "line 1"},
      {"[*]\nno setting\n", "line 2"},
      {"zqs.capture_params=1\n", "line 1"},
      {"store_mb=none\n", "line 1"},
      {"store_mb=0\n", "line 1"},
      {"[*]\nzqs.caputre_params=1\n", "zqs.caputre_params"},
  };
  for (const auto& row : rows) {
    Applications file = parse_applications(std::string(row.text) + "[Good]\nzqs.rum.enabled=1\n");
    ASSERT_EQ(file.problems.size(), 1u) << row.text;
    EXPECT_NE(file.problems[0].find(row.problem), std::string::npos) << file.problems[0];
    EXPECT_EQ(settings_of(file, "Good")["zqs.rum.enabled"], "1") << row.text;
    EXPECT_EQ(file.store_mb, Applications::default_store_mb);
  }
  EXPECT_TRUE(parse_applications("[*]\nzqs.profile_end_time=1\nzqs.resource.used=0\nzqs.vantorIdSecret=x\n").problems.empty());
}

TEST(Stamps, ChangeWithEverySettingAndOnlyWithThem) {
  const Settings rows[] = {
      {}, {{"a", ""}}, {{"a", "b"}}, {{"ab", ""}}, {{"a", "c"}}, {{"a", "b"}, {"c", ""}}, {{"a", "b"}, {"c", "d"}}, {{"", "ab"}},
  };
  std::map<uint64_t, size_t> seen;
  for (size_t i = 0; i < std::size(rows); i++) {
    uint64_t stamp = stamp_of(rows[i]);
    EXPECT_NE(stamp, 0u);
    EXPECT_TRUE(seen.try_emplace(stamp, i).second) << i << " has the stamp of " << seen[stamp];
    EXPECT_EQ(stamp, stamp_of(Settings(rows[i])));
  }
  // Another application's settings, comments and order are no reason for agents to take theirs anew.
  Applications before = parse_applications("[A]\nx=1\ny=2\n"), after = parse_applications("[B]\nx=3\n[A]\n# c\ny=2\nx=1\n");
  EXPECT_EQ(stamp_of(settings_of(before, "A")), stamp_of(settings_of(after, "A")));
}

TEST(Applications, FollowTheirFile) {
  char folder[] = "/tmp/quorbit-test-XXXXXX";
  ASSERT_TRUE(mkdtemp(folder));
  const std::string path = std::string(folder) + "/applications.conf";
  ApplicationsFile file(path);
  auto value = [&file] { return settings_of(file.current(), "A")["zqs.rum.enabled"]; };
  auto replace = [&path](const char* text) {
    std::ofstream(path + ".new") << text;
    rename((path + ".new").c_str(), path.c_str());
  };
  EXPECT_EQ(value(), "") << "no file";
  replace("[A]\nzqs.rum.enabled=1\n");
  EXPECT_EQ(value(), "1");
  replace("[A]\nzqs.rum.enabled=2\n");  // of the same size
  EXPECT_EQ(value(), "2");
  unlink(path.c_str());
  EXPECT_EQ(value(), "");
  mkfifo(path.c_str(), 0600);
  EXPECT_EQ(value(), "") << "a pipe is not waited for";
  unlink(path.c_str());
  rmdir(folder);
}

TEST(ProfileSessions, StartWithTheFirstProcessThatAsksAndEndForAllTogether) {
  ProfileSessions sessions;
  sessions.set_waiting({{1, "Shop", 30}, {2, "Other", 10}});
  EXPECT_FALSE(sessions.end_second("Nobody", 10, 1000, 5));
  EXPECT_EQ(sessions.end_second("Shop", 10, 1000, 5), 1030);
  EXPECT_EQ(sessions.end_second("Shop", 11, 1020, 6), 1030);
  EXPECT_EQ(sessions.end_second("Shop", 11, 1030, 6), 1030);
  EXPECT_FALSE(sessions.end_second("Shop", 12, 1031, 7));
  auto started = sessions.take_started();
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].order.id, 1);
  EXPECT_EQ(started[0].process, 10);
  EXPECT_EQ(started[0].started_ms, 5);
  EXPECT_TRUE(sessions.take_started().empty()) << "told once";
}

TEST(ProfileSessions, DropOrdersThatWereTakenBack) {
  ProfileSessions sessions;
  sessions.set_waiting({{1, "Shop", 30}, {2, "Other", 10}});
  EXPECT_EQ(sessions.end_second("Other", 10, 1000, 5), 1010);
  sessions.set_waiting({});
  EXPECT_FALSE(sessions.end_second("Shop", 10, 1000, 5));
  EXPECT_EQ(sessions.end_second("Other", 11, 1001, 5), 1010) << "what has started goes on";
}
