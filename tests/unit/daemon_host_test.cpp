// PHP's processes as a made-up /proc tells them, and what is found amiss.
#include "base/account.h"
#include "base/files.h"
#include "daemon_records.h"
#include "host/findings.h"
#include "host/host_sample.h"
#include "print/report.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace quorbit;
using namespace quorbit_test;
namespace fs = std::filesystem;

namespace {

const auto engine = "code "s + std::string((1 << 20) - 10, 'x') + "API20131226,TS more";
const auto agent = "/usr/lib/php/zqprof.so"s;

struct Made {
  int id, parent;
  std::string program, arguments, mapped;  // arguments with NULs
  int user = 33;
  std::string groups = "33";
};

// A /proc with these processes, each with `/` of its own.
void make_process(const fs::path& proc, const Made& made) {
  const fs::path folder = proc / std::to_string(made.id), root = folder / "root";
  auto write = [](const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
  };
  write(folder / "stat", std::to_string(made.id) + " (a (b) c) S " + std::to_string(made.parent) +
                             " 3 4 5 6 7 8 9 10 11 30 12 14 15 16 17 18 19 5000 21 22\n");
  write(folder / "status", "Name:\tx\nUid:\t0\t" + std::to_string(made.user) + "\t0\t0\nGid:\t0\t33\t0\t0\nGroups:\t" + made.groups + "\n");
  write(folder / "cmdline", made.arguments);
  if (made.mapped != "denied") write(folder / "maps", "7f12a000-7f12b000 r-xp 00000000 08:01 4711   /bin/x\n7f12c000-7f12d000 r-xp 0 08:01 1  " + made.mapped + "\n");
  write(proc / made.program, made.program.find("php8") == std::string::npos ? engine : "code"s);
  fs::create_symlink(proc / made.program, folder / "exe");
  write(root.string() + "/etc/fpm.conf", "[global]\ninclude=/etc/pool*.conf\n");
  write(root.string() + "/etc/pools.conf", "[www]\n; php_admin_value[zqs.agent_enabled] = 0\n[quiet]\nphp_admin_flag[zqs.agent_enabled] = off ; for now\n");
  write(root.string() + "/usr/lib/libphp5.so", engine);
}

}  // namespace

TEST(Processes, AreFoundAndTheirAgentIsKnown) {
  TemporaryFolder folder;
  const struct {
    Made made;
    std::string title, agent;  // "" for a process that is not PHP's
  } rows[] = {
      {{10, 1, "php-fpm", "php-fpm: master process (/etc/fpm.conf)\0"s, agent, 0}, "FPM master", "loaded"},
      {{11, 10, "php-fpm", "php-fpm: pool www\0\0\0"s, agent}, "FPM pool www", "loaded"},
      {{12, 10, "php-fpm", "php-fpm: pool quiet\0"s, agent}, "FPM pool quiet", "off"},
      {{13, 10, "php-fpm", "php-fpm: pool www\0"s, agent + " (deleted)"}, "FPM pool www", "old"},
      {{14, 10, "php-fpm", "php-fpm: pool www\0"s, "/lib/x.so"}, "FPM pool www", "missing"},
      {{15, 1, "php8-fpm", "php-fpm: pool new\0"s, "/lib/x.so"}, "FPM pool new", "unfit"},
      {{16, 1, "apache2", "/usr/sbin/apache2\0-k\0start\0"s, "/usr/lib/libphp5.so", 0}, "Apache master", "missing"},
      {{17, 16, "apache2", "/usr/sbin/apache2\0-k\0start\0"s, agent}, "Apache", "loaded"},
      {{18, 1, "nginx", "nginx: worker\0"s, "/lib/x.so"}, "", ""},
      {{19, 1, "php", "php\0-d\0zqs.agent_enabled=0\0/srv/jobs/mail.php\0-S\0x\0"s, agent}, "CLI mail.php", "off"},
      {{20, 1, "php", "php\0-c\0/x.ini\0-S\0localhost:8000\0"s, agent}, "built-in localhost:8000", "loaded"},
      {{21, 1, "php-cgi", "php-cgi\0-b\0/run/x.sock\0"s, "denied"}, "CGI /run/x.sock", "unseen"},
      {{22, 1, "embedding", "embedding\0"s, agent}, "other", "loaded"},
  };
  for (const auto& row : rows) make_process(folder.path(), row.made);
  std::ofstream(folder.path() + "/stat") << "cpu 1 2\nbtime 1000\n";
  const auto found = php_processes(folder.path());
  auto at = found.begin();
  for (const auto& row : rows) {
    if (row.title.empty()) continue;
    ASSERT_NE(at, found.end());
    EXPECT_EQ(title_of(*at) + ": " + name_of(at->agent), row.title + ": " + row.agent) << row.made.id;
    EXPECT_EQ(at->user, static_cast<uid_t>(row.made.user));
    EXPECT_EQ(at->started_ms, 1000000 + 5000 * 1000 / sysconf(_SC_CLK_TCK));
    EXPECT_EQ(at->cpu_ticks, 42);
    ++at;
  }
  EXPECT_EQ(at, found.end());
}

TEST(Findings, SayWhatIsAmissAndWhatToDo) {
  auto good = [] {
    HostFacts facts;
    facts.now_ms = 10 * silent_ms;
    facts.folder = {"/var/log/quorbit", true, 0, 33, 02750, 1, 2, "www-data", true, true};
    facts.daemon.answers = true;
    facts.daemon.process = 7;
    facts.daemon.socket = "SOCKET", facts.daemon.log = "LOG";
    PhpProcess child;
    child.id = 811;
    child.server = PhpServer::fpm;
    child.pool = "client";
    child.agent = AgentState::loaded;
    facts.groups = {{{child}, {{"Shop"}, 1, facts.now_ms, true, "client"}}};
    return facts;
  };
  ASSERT_EQ(findings_text(findings_of(good())), "");
  EXPECT_EQ(findings_text({{"", "what", "mend", {}}}, true), "\x1b[1;31mCHECK\x1b[0m  what. To mend: mend\n");
  using Change = void (*)(HostFacts&);
  const struct {
    const char *check, *told;
    Change change;
  } rows[] = {
      {"folder_missing", "does not exist", [](HostFacts& f) { f.folder.there = f.daemon.answers = false; }},
      {"folder_closed", "chmod 2750", [](HostFacts& f) { f.folder.mode = 02700; }},
      {"folder_exposed", "for everybody", [](HostFacts& f) { f.folder.mode = 02777; }},
      {"log_missing", "install -m 0666", [](HostFacts& f) { f.folder.log_can_be_written = false; }},
      {"no_daemon", "kill 7", [](HostFacts& f) { f.daemon.answers = false; }},
      {"no_daemon", "the end of LOG", [](HostFacts& f) { f.daemon.answers = false, f.daemon.process = 0; }},
      {"no_daemon", "extension=zqprof.so", [](HostFacts& f) { f.daemon = {}, f.folder.start_tried = false; }},
      {"daemon_old", "kill 7", [](HostFacts& f) { f.daemon.older = true; }},
      {"agent_old", "reload php-fpm", [](HostFacts& f) { f.groups[0].processes[0].agent = AgentState::replaced; }},
      {"agent_missing", "extension=zqprof.so", [](HostFacts& f) { f.groups[0].processes[0].agent = AgentState::missing; }},
      {"agent_off", "agent_enabled", [](HostFacts& f) { f.groups[0].processes[0].agent = AgentState::off; }},
      {"no_access", "client, process 811: account client is not in group www-data: it can reach neither the socket nor the log. To mend: usermod -aG www-data client, then reload php-fpm",
       [](HostFacts& f) { f.groups[0].report.reaches = false; }},
      {"other_folder", "mount --bind", [](HostFacts& f) { f.groups[0].report.same_folder = false; }},
      {"silent", "no packet for 50 min", [](HostFacts& f) { f.groups[0].report.packet_ms = 0; }},
      {"packets_lost", "9 packets of Shop", [](HostFacts& f) { f.lost = {{"Shop", "no room", 9}}; }},
      {"not_all_seen", "as root", [](HostFacts& f) { f.sees_all = false; }},
      {"not_all_seen", "root may", [](HostFacts& f) { f.daemon.refusal = "root may"; }},
      // and what is none
      {"", "", [](HostFacts& f) { f.groups[0].processes[0].agent = AgentState::unfit; }},
      {"", "", [](HostFacts& f) { f.groups[0].processes[0].server = PhpServer::cli, f.groups[0].report.packet_ms = 0; }},
      {"", "", [](HostFacts& f) { f.groups[0].report.packet_ms = 0, f.groups[0].report.at_work = false; }},
      {"", "", [](HostFacts& f) { f.groups[0].processes[0].manages = true, f.groups[0].report.reaches = false; }},
  };
  for (const auto& row : rows) {
    HostFacts facts = good();
    row.change(facts);
    const auto findings = findings_of(facts);
    ASSERT_EQ(findings.size(), *row.check ? 1u : 0u) << row.check << findings_text(findings);
    if (findings.empty()) continue;
    EXPECT_EQ(findings[0].check, row.check);
    EXPECT_NE(findings_text(findings).find(row.told), std::string::npos) << findings_text(findings);
  }
}

TEST(Folder, IsEnteredByItsGroupAndOwner) {
  FolderFacts folder;
  folder.owner = 5, folder.group = 33, folder.mode = 02750;
  EXPECT_TRUE(may_enter(folder, 0, {0}) && may_enter(folder, 5, {9}) && may_enter(folder, 8, {8, 33}));
  EXPECT_FALSE(may_enter(folder, 8, {8}));
}

// In a process of its own, as it gives up root; of numbers that differ, so that none stands for another.
TEST(Account, IsTheUsersNotTheGroups) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives up root";
  const TemporaryFolder folder;
  const struct {
    uid_t user;
    gid_t group;
    bool root_stays;
  } rows[] = {{1234, 5678, false}, {1234, 0, false}, {0, 5678, true}};
  for (const auto& row : rows) {
    ASSERT_EQ(chown(folder.path().c_str(), row.user, row.group), 0);
    auto becomes = [&] {
      become_owner_of(folder.path());
      struct stat own = {}, of_group = {}, of_root = {};
      own.st_uid = row.user, own.st_gid = 99;
      of_group.st_uid = row.root_stays ? 99 : row.group + 1, of_group.st_gid = row.user;
      of_root.st_gid = 99;
      const bool group_too = getegid() == (row.root_stays ? 0 : row.group);
      _exit(geteuid() == row.user && group_too && is_of_root_or_us(own) && is_of_root_or_us(of_root) && !is_of_root_or_us(of_group) ? 0 : 1);
    };
    EXPECT_EXIT(becomes(), testing::ExitedWithCode(0), "") << row.user << ":" << row.group;
  }
}

TEST(HostSample, ReadsWhatTheKernelWrites) {
  const TemporaryFolder folder;
  auto write = [&](const std::string& name, const std::string& text) {
    fs::create_directories(fs::path(folder.path() + "/" + name).parent_path());
    std::ofstream(folder.path() + "/" + name) << text;
  };
  write("loadavg", "5.56 3.25 2.10 8/153 13736\n");
  write("meminfo", "MemTotal:       24684084 kB\nMemFree:        22587692 kB\nMemAvailable:   23218360 kB\nBuffers:            7052 kB\n");
  const std::string accepting = std::to_string(SYS_accept4) + " 0x9 0x7ffe 0x7fff 0x80800 0x0 0x0 0x7ffe7eecedb8 0x7ff6249042ad\n";
  const std::string reading = "0 0x3 0x7ff62478b000 0x20000 0x7ff62481bb60 0xffffffff 0x0 0x7ffe7eecedb8 0x7ff6249042ad\n", unseen;
  const struct {
    int id, parent;
    const char* command;
    std::string title, call;
    const char *times, *later;  // user, system, and those of its children, in ticks; at the next look
  } rows[] = {
      {1, 0, "init", "init", reading, "9 9 0 0", "9 9 0 0"},
      {10, 1, "php-fpm", "php-fpm: master process (/etc/fpm.conf)", reading, "1 1 0 0", "9 9 0 0"},
      {11, 10, "php-fpm", "php-fpm: pool www                    ", accepting, "7 7 0 0", "8 8 0 0"},
      {12, 10, "php-fpm", "php-fpm: pool www", reading, "7 7 0 0", "7 7 0 0"},
      {13, 10, "php-fpm", "php-fpm: pool www", "running\n", "7 7 0 0", "7 7 0 0"},
      {20, 1, "apache2", "/usr/sbin/apache2", unseen, "1 1 0 0", "9 9 0 0"},
      {21, 20, "apache2", "/usr/sbin/apache2", unseen, "7 7 5 5", "7 8 5 5"},
      {22, 20, "apache2", "/usr/sbin/apache2", unseen, "7 7 5 5", "7 7 6 6"},
      {30, 1, "php5.6 (old) x", "php", reading, "1 1 0 0", "1 1 0 0"},
      {40, 1, "mariadbd", "mariadbd", "running\n", "1 1 0 0", "9 9 0 0"},
      {50, 1, "php-fpm", "php-fpm: master process (/etc/fpm.conf)", reading, "1 1 0 0", "9 9 0 0"}, // whose title anybody may have given it
  };
  write("10/status", "Uid:\t0 0 0 0\nGid:\t0 0 0 0\n");
  write("50/status", "Uid:\t4242 4242 4242 4242\nGid:\t0 0 0 0\n");
  write("50/root/etc/fpm.conf", "[forged]\nlisten = /run/forged.sock\n");
  write("50/net/unix", "Num RefCount Protocol Flags Type St Inode Path\n0: 00000002 00000000 00010000 0001 01 16 /run/forged.sock\n");
  write("10/root/etc/fpm.conf", "[www]\nlisten = /run/www.sock\n[rest]\nlisten = 9000\n");
  write("10/net/unix", "Num RefCount Protocol Flags Type St Inode Path\n0: 00000002 00000000 00010000 0001 01 16 /run/www.sock\n"
                       "0: 00000002 00000000 00000000 0001 02 0 /run/www.sock\n");
  HostSampler sampler(folder.path());
  HostSample sample;
  for (const bool later : {false, true}) {
    for (const auto& row : rows) {
      const std::string process = std::to_string(row.id), parent = std::to_string(row.parent);
      write(process + "/stat", process + " (" + row.command + ") S " + parent + " 13731 25062 0 -1 4194304 100 0 0 0 " + (later ? row.later : row.times) +
                                   " 20 0 1 0 2610242 3133440 380 18446744073709551615 94037110460416 0\n");
      write(process + "/cmdline", row.title + '\0');
      if (!row.call.empty()) write(process + "/syscall", row.call);
    }
    sample = sampler.take();
  }
  EXPECT_EQ(sample.load, 5.56);
  EXPECT_EQ((std::pair{sample.memory_bytes, sample.available_bytes}), (std::pair<int64_t, int64_t>{24684084 * 1024LL, 23218360 * 1024LL}));
  std::string pools;
  for (const auto& [name, pool] : sample.pools) pools += name + " " + std::to_string(pool.busy) + "/" + std::to_string(pool.idle) + "/" + std::to_string(pool.waiting) + " ";
  EXPECT_EQ(pools, "apache2 1/1/0 php5.6 (old) x 1/0/0 www 2/1/1 ");
}
