// A slot of the board, which every member of the web server's group can write: whatever it holds, it is read within its fields,
// and prints as harmless text and as JSON that strict parsers take. And texts on their way there: of a statement nothing from the
// first quote on is left, and nothing is written beyond its room.
// Input: bytes over a slot that is in order, from its end backwards when the first is odd; the same bytes as a statement.
// sources: daemon/host/board_slot.cpp daemon/print/report_now.cpp daemon/print/page.cpp daemon/base/text.cpp daemon/base/cells.cpp daemon/base/clock.cpp daemon/base/json_text.cpp daemon/facts/trace.cpp daemon/facts/wire.cpp daemon/receive/killed_packet.cpp ext/zqp_board_text.cpp
// libraries: nlohmann_json
#include "host/board_slot.h"
#include "print/report_now.h"
#include "receive/killed_packet.h"
#include "base/text.h"
#include "require.h"
#include "zqp_board_text.h"

#include <nlohmann/json.hpp>

using namespace quorbit;

namespace {

constexpr uint64_t claim = uint64_t{1} << 32 | 1;

void check_slot(const uint8_t* data, size_t size) {
  zq_board_slot raw = {};
  char* bytes = reinterpret_cast<char*>(&raw);
  size = std::min(size, sizeof raw);
  memcpy(data[0] % 2 ? bytes + sizeof raw - size : bytes, data, size);
  raw.owner = claim;
  auto slot = read_board_slot({bytes, sizeof raw}, claim);
  REQUIRE(slot && slot->last.size() <= ZQ_BOARD_CALLS && (!slot->current || *slot->current < slot->last.size()));
  slot->read_us = 1000000;
  Now now{{*slot}, {{"FPM", "www", 1, false, 1, 1}}};
  for (const std::string& text : {now_text(now, 80), slot_text(*slot, 80, false)}) {
    REQUIRE(valid_utf8(text) == text);
    for (char byte : text) REQUIRE(byte == '\n' || (static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F));
  }
  REQUIRE(Json::accept(now_json(now).dump()));
  const KillCause cause{KillReason::signal, slot->signal};
  REQUIRE(end_of(*slot, cause).find('\n') == std::string::npos && packet_of_killed(*slot, cause, slot->read_us).size() < 1 << 16);
}

// Nothing is left of what may be a value, not even behind what is said to be text.
void check_statement(const std::string& text, size_t most, const char* vendor) {
  const std::unique_ptr<char[]> exact(new char[text.size()]);
  text.copy(exact.get(), text.size());
  char out[ZQ_BOARD_TEXT_SIZE] = {};
  const zq_board_shown slow = zq_board_statement(out, most, exact.get(), text.size(), vendor);
  REQUIRE(slow.len <= most && slow.len <= text.size());
  REQUIRE(!memchr(out, '\'', sizeof out) && (*vendor == 'P' || !memchr(out, '"', sizeof out)));
  char quick_out[ZQ_BOARD_TEXT_SIZE] = {};
  zq_board_shown quick;
  if (text.empty() || !(text[0] & 0x40) || !zq_board_quick_statement(quick_out, exact.get(), text.size(), &quick)) return;
  const zq_board_shown same = zq_board_statement(out, ZQ_BOARD_QUICK, exact.get(), text.size(), vendor);
  REQUIRE(quick.len == same.len && quick.is_cut == same.is_cut && !memcmp(out, quick_out, quick.len));
  REQUIRE(!memchr(quick_out, '\'', sizeof quick_out));
}

void check_texts(const std::string& text, size_t room) {
  const std::unique_ptr<char[]> out(new char[room]);
  REQUIRE(zq_board_url(out.get(), room, text.data(), text.size()).len <= room);
  for (const char* vendor : {"MySQL", "PostgreSQL"}) check_statement(text, std::min(room, ZQ_BOARD_TEXT_SIZE), vendor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return -1;
  check_slot(data, size);
  check_texts({reinterpret_cast<const char*>(data) + 2, size - 2}, data[1]);
  return 0;
}
