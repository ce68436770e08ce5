// The dry run of naming: access logs hold what clients sent, and the report of their names must be harmless text that leaves no
// request out.
// Input: naming rules and the list of captured parameters, each in a line, then the log.
// sources: daemon/ask/naming.cpp daemon/ask/naming_request.cpp daemon/facts/path_text.cpp daemon/base/text.cpp daemon/base/cells.cpp daemon/base/clock.cpp ext/zqp_naming_rules.cpp ext/zqp_helper_regex.cpp ext/zqp_helper_regex_read.cpp
// libraries: libcjson
#include <algorithm>
#include <sstream>

#include "ask/naming.h"
#include "require.h"
#include "base/text.h"

using namespace quorbit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string rules = take_line(&input), captured = take_line(&input);
  std::istringstream log{std::string(input)};
  for (const char* automatic : {"0", "1"}) {
    Namer namer({{"zqs.naming.rules", rules}, {"zqs.web_action_uri_params_captured", captured}, {"zqs.auto_action_naming", automatic}},
                "/index.php");
    namer.invalid_rules();
    log.clear();
    log.seekg(0);
    NameCounts counts = count_names(log, namer);
    int64_t requests = 0;
    for (const NameCount& count : counts.names) {
      REQUIRE(count.name.starts_with("WebAction/") && count.requests > 0);
      requests += count.requests;
    }
    REQUIRE(requests == counts.requests && counts.passed_over_count >= static_cast<int64_t>(counts.passed_over.size()));
    REQUIRE(requests + counts.passed_over_count <= std::count(input.begin(), input.end(), '\n') + 1);
    for (size_t width : {0, 40}) {
      std::string text = names_text(counts, 5, width, "/index.php");
      REQUIRE(valid_utf8(text) == text);
      for (char byte : text) REQUIRE(byte == '\n' || (static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F));
    }
  }
  return 0;
}
