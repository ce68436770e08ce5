// The text of a PHP file, read for constructs: each is of a rule, on a line that the text has, behind the one before.
// Input: which tags begin code, then the text.
// sources: ext/zqp_radar_text.cpp ext/zqp_radar_reader.cpp
#include "require.h"
#include "zqp_radar_names.h"
#include "zqp_radar_text.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  unsigned last = 1;
  zq_radar_read_text(
      text, {(*data & 1) != 0, (*data & 2) != 0},
      [](void* before, std::string_view name, unsigned line) {
        REQUIRE(zq_radar_rule_of(ZQ_SIGN_SYNTAX, name));
        REQUIRE(line >= *static_cast<unsigned*>(before));
        *static_cast<unsigned*>(before) = line;
      },
      &last);
  unsigned lines = 1;
  for (size_t i = 0; i < text.size(); i++) lines += text[i] == '\n' || text[i] == '\r';
  REQUIRE(last <= lines);
  return 0;
}
