// The files that the local daemon reads: its configuration, and the operator's settings with what agents are answered from them.
// sources: daemon/base/config.cpp daemon/base/address.cpp daemon/base/store_url.cpp daemon/base/files.cpp daemon/facts/applications.cpp daemon/base/log.cpp daemon/base/text.cpp daemon/base/cells.cpp daemon/base/clock.cpp daemon/facts/wire.cpp
#include <stdexcept>

#include "facts/applications.h"
#include "base/config.h"
#include "require.h"

using namespace quorbit;

namespace {

void check_config(std::string_view text) {
  try {
    DaemonConfig config = parse_daemon_config(text);
    for (const std::string& path : {config.pid_file, config.socket_file, config.lock_file(), config.store_file()}) {
      REQUIRE(path.starts_with('/'));
    }
    REQUIRE(config.log_file.empty() || config.log_file[0] == '/');
  } catch (const std::runtime_error& failure) {
    REQUIRE(strstr(failure.what(), "names no zqs."));
  }
}

void check_answer(const Settings& settings) {
  REQUIRE(stamp_of(settings) != 0);
  std::string packet = write_answer(stamp_of(settings), 0, settings);
  Settings seen;
  size_t records = 0;
  REQUIRE(for_each_record(std::string_view(packet).substr(header_size), [&](const Record& record) {
    REQUIRE((record.type == record_stamp) == (records++ == 0));
    std::string body(record.body);
    if (record.type == record_setting) seen[body.substr(0, body.find('='))] = body.substr(body.find('=') + 1);
  }));
  REQUIRE(seen == settings && records == settings.size() + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  check_config(text);
  Applications applications = parse_applications(text);
  REQUIRE(applications.store_mb >= 1 && applications.store_mb <= 1000000);
  for (const auto& [section, settings] : applications.sections) check_answer(settings_of(applications, section));
  return 0;
}
