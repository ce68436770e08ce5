// Who says why a process ended: servers' logs, the kernel's log, the counters of cgroups; and what becomes of it.
#include "daemon_records.h"
#include "facts/packet.h"
#include "host/oom_kills.h"
#include "host/server_logs.h"
#include "receive/killed_packet.h"

#include <gtest/gtest.h>

#include <csignal>

using namespace quorbit;
using namespace quorbit_test;

namespace {

std::string words(const std::vector<LoggedEnd>& ends) {
  std::string text;
  for (const LoggedEnd& end : ends) {
    text += std::to_string(end.process) + " " + std::to_string(end.signal) + (end.timed_out ? " timed out" : "") + " " +
            std::to_string(static_cast<int>(end.lasted_s * 10)) + ";";
  }
  return text;
}

}  // namespace

TEST(ServerLogs, TellWhichSignalEndedAChildAndOnlyThat) {
  const std::string at = "[22-Nov-2026 19:00:00] ", apache = "[Sun Nov 22 19:00:00.123456 2026] [core:notice] ";
  const std::string late = at + "WARNING: [pool www] child 7, script '/a.php' (request: \"GET /a\") execution timed out (1.019 sec), terminating\n";
  const std::string ended = " exited on signal 15 (SIGTERM) after 2.500000 seconds from start\n";
  using Row = std::pair<std::string, const char*>;
  const Row fpm[] = {
      {at + "WARNING: [pool www] child 7 exited on signal 9 (SIGKILL) after 2.500000 seconds from start\n", "7 9 25;"},
      {at + "WARNING: [pool www] child 7 exited on signal 11 (SIGSEGV - core dumped) after 0.100000 seconds from start\n", "7 11 1;"},
      {"[22-Nov-2026 19:00:00.000001] WARNING: pid 6, fpm_children_bury(), line 254: [pool www] child 7" + ended, "7 15 25;"},
      {late + at + "WARNING: [pool www] child 7" + ended, "7 15 timed out 25;"},
      {late + at + "WARNING: [pool www] child 8" + ended, "8 15 25;"},
      {late + at + "NOTICE: [pool www] child 7 started\n" + at + "WARNING: [pool www] child 7" + ended, "7 15 25;"},
      {late + at + "WARNING: [pool www] child 7 exited on signal 9 (SIGKILL) after 2.500000 seconds from start\n", "7 9 25;"},
      {at + "NOTICE: [pool www] child 7 exited with code 0 after 2.500000 seconds from start\n", ""},
      {at + "WARNING: [pool www] child 7 said into stderr: \"[pool www] child 8" + ended, ""},
      {at + "WARNING: [pool www] child 7, script '/a.php' (request: \"GET /?execution timed out (1.0 sec), terminating\") executing too slow "
            "(1.019 sec), logging\n" + at + "WARNING: [pool www] child 7" + ended, "7 15 25;"},
      {"child 7" + ended + at + "WARNING: [pool www] child 7 exited on signal", ""},
      {at + "WARNING: [pool www] child 99999999999" + ended, ""},
  };
  for (const auto& [log, found] : fpm) EXPECT_EQ(words(read_fpm_log(log)), found) << log;
  const Row ends[] = {
      {apache + "[pid 6:tid 7] AH00052: child pid 8 exit signal Segmentation fault (11)\n", "8 11 -10;"},
      {apache + "[pid 6] AH00051: child pid 8 exit signal Aborted (6), possible coredump in /tmp\n", "8 6 -10;"},
      {"[Sun Nov 22 19:00:00.123456 2026] [php5:notice] [pid 9] [client ::1] AH00052: child pid 8 exit signal Killed (9)\n", ""},
      {apache + "[pid 6:tid 7] AH00094: Command line: 'AH00052: child pid 8 exit signal Killed (9)'\n", ""},
      {apache + "[pid 6:tid 7] AH00052: child pid 8 exit signal Segmentation", ""},
  };
  for (const auto& [log, found] : ends) EXPECT_EQ(words(read_apache_log(log)), found) << log;
  const int64_t at_ms = read_apache_log(ends[0].first)[0].at_ms, noon_ms = 1795348800000;  // that day's, by UTC
  EXPECT_LT(std::abs(at_ms - noon_ms), int64_t{24} * 3600 * 1000);
}

TEST(OomKills, AreThoseThatTheKernelsOwnLinesName) {
  const std::pair<const char*, int> rows[] = {
      {"3,1234,53771258703,-;Memory cgroup out of memory: Killed process 4711 (php-fpm) total-vm:1kB\n", 4711},
      {"3,1234,53771258703,-;Out of memory: Killed process 4711 (php) total-vm:1kB\n SUBSYSTEM=x\n", 4711},
      {"12,1234,53771258703,-;Out of memory: Killed process 4711 (php)\n", 0},  // a program's own
      {"6,1234,53771258703,-;php: Out of memory: Killed process 4711\n", 0},
      {"Killed process 4711", 0},
      {"3,1234,53771258703,-;Killed process ", 0},
  };
  for (const auto& [record, process] : rows) EXPECT_EQ(oom_killed_in(record).value_or(0), process) << record;
}

TEST(OomKills, AreCountedByCgroupsWhereTheLogIsNotToBeRead) {
  const struct {
    const char *membership, *file, *before, *after;
  } rows[] = {
      {"0::/shop\n", "shop/memory.events.local", "low 0\noom 1\noom_kill 4\n", "low 0\noom 9\noom_kill 6\n"},
      {"9:pids:/x\n4:cpu,memory:/shop\n0::/\n", "memory/shop/memory.oom_control", "under_oom 0\noom_kill 4\n", "under_oom 0\noom_kill 6\n"},
  };
  for (const auto& row : rows) {
    TemporaryFolder folder;
    const auto counter = std::filesystem::path(folder.path()) / "cgroups" / row.file;
    std::filesystem::create_directories(counter.parent_path());
    std::ofstream(counter) << row.before;
    for (int process : {11, 12, 13}) {
      std::filesystem::create_directories(folder.path() + "/proc/" + std::to_string(process));
      std::ofstream(folder.path() + "/proc/" + std::to_string(process) + "/cgroup") << row.membership;
    }
    OomKills kills(folder.path() + "/proc", folder.path() + "/cgroups", "/nowhere");
    kills.look({11, 12, 13});
    EXPECT_TRUE(kills.killed_among({11}).empty()) << "kills from before";
    std::filesystem::remove_all(folder.path() + "/proc");
    std::ofstream(counter) << row.after;
    kills.look({11, 12, 13});
    EXPECT_TRUE(kills.killed_among({11, 12, 13}).empty()) << "two kills, and three are gone: nobody knows which";
    EXPECT_EQ(kills.killed_among({11, 12}), (std::set<int>{11, 12}));
    EXPECT_TRUE(kills.killed_among({13}).empty()) << "each kill counts once";
  }
}

TEST(KilledPacket, SaysHowTheProcessEnded) {
  const std::pair<KillCause, const char*> rows[] = {
      {{}, "The process ended in PHP, pay"},
      {{KillReason::signal, SIGKILL}, "The process ended with SIGKILL in PHP, pay"},
      {{KillReason::signal, 200}, "The process ended with signal 200 in PHP, pay"},
      {{KillReason::sibling, SIGSEGV}, "The process ended with SIGSEGV of another thread in PHP, pay"},
      {{KillReason::timeout, SIGTERM}, "The process ended by FPM's request_terminate_timeout in PHP, pay"},
      {{KillReason::memory, SIGKILL}, "The process ended by the kernel's OOM killer in PHP, pay"},
  };
  for (const auto& [cause, message] : rows) {
    BoardSlot slot;
    slot.action = "WebAction/shop\npay", slot.function = "pay";
    const auto action = read_action(packet_of_killed(slot, cause, 5000000));
    ASSERT_TRUE(action && action->error);
    EXPECT_EQ(action->name, "WebAction/shop pay");
    EXPECT_EQ(action->error->message, message);
  }
}
