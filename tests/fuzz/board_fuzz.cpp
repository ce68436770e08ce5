// A slot of the board, which every member of the web server's group can write: whatever it holds, it is read within its fields,
// and prints as harmless text and as JSON that strict parsers take. And texts on their way there: of a statement nothing from the
// first quote on is left, and nothing is written beyond its room.
// Input: bytes over a slot that is in order, from its end backwards when the first is odd; the same bytes as a statement.
// sources: daemon/host/board_slot.cpp daemon/print/report_now.cpp daemon/print/page.cpp daemon/base/text.cpp daemon/base/cells.cpp daemon/base/clock.cpp daemon/base/json_text.cpp daemon/facts/trace.cpp ext/zqp_board_text.cpp
// libraries: nlohmann_json
#include "host/board_slot.h"
#include "print/report_now.h"
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
  Now now{1000000, {*slot}, {{"FPM", "www", false, 1, 1}}};
  for (const std::string& text : {now_text(now, 80), slot_text(*slot, now.at_us, 80, false)}) {
    REQUIRE(valid_utf8(text) == text);
    for (char byte : text) REQUIRE(byte == '\n' || (static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F));
  }
  REQUIRE(Json::accept(now_json(now).dump()));
}

void check_text(const std::string& text, size_t room) {
  std::unique_ptr<char[]> out(new char[room]);
  bool is_cut;
  REQUIRE(zq_board_url(out.get(), room, text.data(), text.size(), &is_cut) <= room);
  for (bool names : {false, true}) {
    char statement[ZQ_BOARD_TEXT_SIZE] = {};
    const size_t length = zq_board_statement(statement, text.data(), text.size(), names, &is_cut);
    REQUIRE(length <= sizeof statement && length <= text.size());
    const std::string_view shown(statement, sizeof statement);
    REQUIRE(shown.find('\'') == std::string_view::npos);
    REQUIRE(names || shown.find('"') == std::string_view::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return -1;
  check_slot(data, size);
  check_text({reinterpret_cast<const char*>(data) + 2, size - 2}, data[1]);
  return 0;
}
