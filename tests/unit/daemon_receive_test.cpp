// What senders get of a bound that they share, of the receiver's time, and of the backlog.
#include "base/shares.h"
#include "receive/daemonize.h"
#include "receive/service.h"
#include "receive/turns.h"
#include "daemon_records.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

using namespace quorbit;
using namespace quorbit_test;

namespace {

constexpr size_t packet = 3000, most = size_t{64} << 20;

// Packets that each sender could take, when all want as many as they can get.
std::vector<size_t> flood(Shares& shares, const std::vector<Sender>& senders) {
  std::vector<size_t> taken(senders.size());
  for (bool more = true; more;) {
    more = false;
    for (size_t i = 0; i < senders.size(); i++) {
      bool given = shares.take(senders[i], packet);
      taken[i] += given;
      more |= given;
    }
  }
  return taken;
}

}  // namespace

TEST(Shares, LeaveARestForWhoHoldsLittle) {
  Shares shares(most);
  std::vector<Sender> senders;
  for (uint64_t i = 0; i < 1000; i++) senders.push_back({65534, i});
  flood(shares, senders);
  EXPECT_GT(shares.used_bytes(), most * 8 / 10) << "the room is there to be used";
  EXPECT_FALSE(shares.take(senders[1], packet));
  for (uint64_t i = 0; i < 1000; i++) EXPECT_TRUE(shares.take({33, 5000 + i % 20}, packet)) << "another account, packet " << i;
}

TEST(Shares, AreEqualForThoseWhoWantAll) {
  const std::vector<std::vector<Sender>> rows = {
      {{1, 1}, {2, 2}},                    // two accounts
      {{1, 1}, {1, 2}},                    // two connections
      {{1, 1}, {1, 2}, {1, 3}, {1, 4}},
  };
  for (const auto& senders : rows) {
    Shares shares(most);
    auto taken = flood(shares, senders);
    for (size_t count : taken) EXPECT_NEAR(count, taken[0], 1.0);
    EXPECT_GT(shares.used_bytes(), most * 7 / 10);
    for (size_t i = 0; i < senders.size(); i++) shares.give_back(senders[i], taken[i] * packet);
    EXPECT_EQ(shares.used_bytes(), 0u);
  }
  Shares shares(most);
  EXPECT_FALSE(shares.take({1, 1}, most + 1));
  flood(shares, {{1, 1}});
  for (int i = 0; i < 200; i++) EXPECT_TRUE(shares.take({1, 2}, packet)) << "another connection, packet " << i;
}

TEST(Turns, GoRoundTheAccountsAndTheConnectionsOfEach) {
  Turns turns;
  for (uint64_t connection : {1, 2, 3}) turns.add({65534, connection});
  turns.add({33, 9});
  std::string order;
  for (int i = 0; i < 6; i++) {
    uint64_t connection = turns.next();
    order += std::to_string(connection);
    if (i < 2) turns.add({connection == 9 ? 33u : 65534u, connection});
  }
  EXPECT_EQ(order, "192931") << "who has more comes behind those who wait";
  EXPECT_TRUE(turns.empty());
}

TEST(Daemon, TellsAProgramThatWasReplaced) {
  TemporaryFolder folder;
  const std::string program = folder.path() + "/sleep";
  std::filesystem::copy_file("/bin/sleep", program);
  pid_t process = fork();
  if (process == 0) {
    execl(program.c_str(), "sleep", "60", nullptr);
    _exit(1);
  }
  auto runs = [&] { return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/exe") == program; };
  for (int i = 0; i < 1000 && !runs(); i++) usleep(1000);
  EXPECT_FALSE(runs_replaced_binary(process));
  std::filesystem::remove(program);
  EXPECT_TRUE(runs_replaced_binary(process));
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
}

// An agent finds no daemon and runs quorbit: where the service is to do that, stopped means stopped.
TEST(Daemon, IsLeftToAnEnabledServiceOfARunningSystemdAndOfItsOwnFolderAlone) {
  const std::string root = testing::TempDir() + "system" + std::to_string(getpid());
  const auto ours = default_daemon_config("/var"), other = default_daemon_config("/srv/var");
  const std::string wants = root + "/etc/systemd/system/multi-user.target.wants";
  std::filesystem::create_directories(wants);
  symlink("/lib/systemd/system/quorbit.service", (wants + "/quorbit.service").c_str());
  EXPECT_FALSE(is_left_to_service(ours, root));
  std::filesystem::create_directories(root + "/run/systemd/system");
  EXPECT_TRUE(is_left_to_service(ours, root));
  EXPECT_FALSE(is_left_to_service(other, root));
  unlink((wants + "/quorbit.service").c_str());
  EXPECT_FALSE(is_left_to_service(ours, root));
  std::filesystem::remove_all(root);
}
