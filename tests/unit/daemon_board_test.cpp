// The board as its reader sees it: whole states, and sense whatever somebody has written there.
#include "daemon_records.h"
#include "host/board_file.h"
#include "host/listen_queue.h"
#include "print/report_now.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

using namespace quorbit;
using namespace quorbit_test;

namespace {

uint64_t own_claim() { return static_cast<uint64_t>(getpid()) << 32 | static_cast<uint32_t>(syscall(SYS_gettid)); }

std::string bytes_of(const zq_board_slot& slot) { return {reinterpret_cast<const char*>(&slot), sizeof slot}; }

// What a thread would have written: call number N took N us, and the last one runs.
zq_board_slot written(uint32_t calls) {
  zq_board_slot slot = {};
  slot.owner = own_claim();
  slot.is_open = 1;
  slot.calls = slot.current = calls;
  slot.application_length = 4;
  memcpy(slot.application, "Shop", 4);
  for (uint32_t number = 1; number <= calls; number++) {
    zq_board_call& call = slot.ring[(number - 1) % ZQ_BOARD_CALLS];
    call.kind = ZQ_BOARD_SQL;
    call.duration_us = number == calls ? ZQ_BOARD_RUNNING : number;
    call.length = 1;
    call.text[0] = static_cast<char>('a' + number % 26);
  }
  return slot;
}

// A board with this slot as its first.
void put_on_board(const std::string& path, const zq_board_slot& slot) {
  make_board(path, 4);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(sizeof(zq_board_header)).write(reinterpret_cast<const char*>(&slot.owner), sizeof slot.owner);
  file.seekp(zq_board_slots_at(4)).write(reinterpret_cast<const char*>(&slot), sizeof slot);
}

}  // namespace

TEST(Board, TellsTheLastCallsInTheirOrder) {
  for (uint32_t calls : {0u, 1u, 32u, 33u, 100u}) {
    auto slot = read_board_slot(bytes_of(written(calls)), own_claim());
    ASSERT_TRUE(slot);
    ASSERT_EQ(slot->last.size(), std::min(calls, 32u));
    for (size_t i = 0; i < slot->last.size(); i++) {
      const auto number = static_cast<int64_t>(calls - slot->last.size() + i + 1);
      EXPECT_EQ(slot->last[i].duration_us, number == calls ? -1 : number);
    }
    EXPECT_EQ(slot->current.has_value(), calls > 0);
    EXPECT_TRUE(!calls || *slot->current == slot->last.size() - 1);
  }
}

TEST(Board, KeepsLengthsAndNumbersWithinTheirFields) {
  zq_board_slot slot;
  memset(&slot, 0xFF, sizeof slot);
  slot.owner = own_claim();
  auto read = read_board_slot(bytes_of(slot), own_claim());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->application.size(), sizeof slot.application);
  EXPECT_EQ(read->stack.size(), sizeof slot.stack);
  EXPECT_EQ(read->action.size(), sizeof slot.action);
  EXPECT_EQ(read->last.size(), 32u);
  EXPECT_FALSE(Json::parse(slot_json(*read).dump()).empty());
  EXPECT_FALSE(read_board_slot(bytes_of(slot), own_claim() + 1)) << "another thread's";
  EXPECT_FALSE(read_board_slot(bytes_of(slot).substr(1), own_claim()));
}

TEST(Board, IsKeptWhenItIsOursAndReplacedWhenItIsNot) {
  TemporaryFolder folder;
  const std::string path = folder.path() + "/board";
  put_on_board(path, written(3));
  make_board(path, 4);
  {
    BoardFile board(path, true);
    ASSERT_EQ(board.claims(), (std::vector<uint64_t>{own_claim(), 0, 0, 0}));
    EXPECT_TRUE(board.looks_open(0));
    auto slot = board.slot(0, own_claim());
    ASSERT_TRUE(slot && slot->application == "Shop" && !is_gone(*slot, "/proc"));
    slot->started_ticks = 1;  // of the process that had this number before
    EXPECT_TRUE(is_gone(*slot, "/proc"));
    ASSERT_TRUE(board.ask(0, 7));
    EXPECT_EQ(board.slot(0, own_claim())->asked, 7u);
    board.free_slot(0, own_claim() + 1);
    EXPECT_EQ(board.claims()[0], own_claim());
    board.free_slot(0, own_claim());
    EXPECT_EQ(board.claims()[0], 0u);
  }
  for (const std::function<void()>& spoil : {std::function<void()>([&] { std::ofstream(path) << "x"; }),
                                             std::function<void()>([&] { std::filesystem::permissions(path, std::filesystem::perms::all); }),
                                             std::function<void()>([&] { std::filesystem::remove(path); std::filesystem::create_symlink("/etc/passwd", path); })}) {
    put_on_board(path, written(1));
    spoil();
    make_board(path, 4);
    EXPECT_EQ(BoardFile(path).claims(), std::vector<uint64_t>(4));
  }
}

TEST(Board, IsNotReadWhereItIsNone) {
  TemporaryFolder folder;
  const std::string path = folder.path() + "/board";
  EXPECT_FALSE(BoardFile(path).is_open());
  std::ofstream(path) << std::string(100000, 'x');
  EXPECT_FALSE(BoardFile(path).is_open());
  make_board(path, 2);
  BoardFile board(path);
  std::filesystem::resize_file(path, 70);
  EXPECT_TRUE(board.claims().empty());
  EXPECT_FALSE(board.slot(1, own_claim()));
}

TEST(Board, GivesASlotThatIsBeingWrittenForEverAsItIs) {
  TemporaryFolder folder;
  zq_board_slot slot = written(1);
  slot.sequence = 5;
  put_on_board(folder.path() + "/board", slot);
  auto read = BoardFile(folder.path() + "/board").slot(0, own_claim());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->application, "Shop");
}

TEST(Board, TakesACallThatHasJustEndedForNoneThatRuns) {
  zq_board_slot slot = written(3);
  slot.ring[2].duration_us = 9;
  auto read = read_board_slot(bytes_of(slot), own_claim());
  EXPECT_FALSE(read->current);
  EXPECT_EQ(read->last.back().duration_us, 9);
}

TEST(ListenQueue, CountsConnectionsThatNobodyHasAccepted) {
  TemporaryFolder folder;
  std::ofstream(folder.path() + "/unix") << "Num       RefCount Protocol Flags    Type St Inode Path\n"
                                            "0000000000000000: 00000002 00000000 00010000 0001 01 16 /run/a b.sock\n"
                                            "0000000000000000: 00000002 00000000 00000000 0001 02     0 /run/a b.sock\n"
                                            "0000000000000000: 00000003 00000000 00000000 0001 03 17 /run/a b.sock\n"
                                            "0000000000000000: 00000002 00000000 00010000 0001 01 18 /run/idle.sock\n"
                                            "0000000000000000: 00000003 00000000 00000000 0001 03 19\n";
  std::ofstream(folder.path() + "/tcp") << "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when\n"
                                           "   0: 0100007F:2328 00000000:0000 0A 00000000:0000000B 00:00000000\n"
                                           "   1: 0100007F:2328 0100007F:9C40 01 00000000:00000700 00:00000000\n";
  const std::pair<const char*, std::optional<int64_t>> rows[] = {
      {"/run/a b.sock", 1}, {"/run/idle.sock", 0}, {"/run/none.sock", std::nullopt}, {"127.0.0.1:9000", 11}, {"9000", 11},
      {"[::]:9000", 11},    {"9001", std::nullopt}, {"", std::nullopt},
  };
  for (const auto& [listen, waiting] : rows) EXPECT_EQ(connections_waiting(folder.path(), listen), waiting) << listen;
}

TEST(Board, TellsAgesOfTheMomentWhenEachSlotWasRead) {
  TemporaryFolder folder;
  zq_board_slot slot = written(1);
  slot.begin_us = slot.ring[0].begin_us = monotonic_us() - 1000000;
  put_on_board(folder.path() + "/board", slot);
  BoardFile board(folder.path() + "/board");
  std::vector<BoardSlot> read;
  for (auto reading : {&BoardFile::slot, &BoardFile::slot_if_whole, &BoardFile::slot_as_left}) {
    const int64_t before = monotonic_us();
    auto found = (board.*reading)(0, own_claim());
    ASSERT_TRUE(found);
    const int64_t after = monotonic_us();
    EXPECT_LE(before, found->read_us);
    EXPECT_GE(after, found->read_us);
    read.push_back(std::move(*found));
  }
  while (monotonic_us() - read.back().read_us < 5000) {}  // what is asked of the pools takes time, too
  const Json requests = now_json({read, {}})["requests"];
  for (size_t i = 0; i < read.size(); i++) {
    EXPECT_EQ(requests[i]["age_us"], read[i].read_us - read[i].begin_us);
    EXPECT_EQ(requests[i]["waits_for"]["duration_us"], requests[i]["age_us"]);
  }
}

TEST(Board, PrintsWhatWaitsAndWhatRuns) {
  Now now;
  auto slot = read_board_slot(bytes_of(written(2)), own_claim());
  slot->method = "GET";
  slot->path = "/a\x1b[2J";
  now.open = {*slot};
  now.pools = {{"FPM", "www", 7, false, 1, 3, 2}, {"FPM", "shop", 7, false, 4, 0, 1}, {"Apache", "", 8, true, 4, 0}};
  const std::string text = now_text(now, 200);
  EXPECT_NE(text.find("Shop"), std::string::npos) << text;
  EXPECT_NE(text.find("GET /a\\x1b[2J"), std::string::npos) << text;
  EXPECT_NE(text.find("SQL c"), std::string::npos) << text;
  EXPECT_NE(text.find("www"), std::string::npos) << text;
  EXPECT_EQ(now_findings(now), std::vector<std::string>{"All 4 processes of pool shop are busy, and 1 connection waits."});
  EXPECT_EQ(now_json(now)["requests"][0]["waits_for"]["runs"], true);
}
