// Error logs of servers, in which scripts and clients write too, and the kernel's log: no text makes anything of them but processes
// that a signal ended, and a line is never taken for a part of the next.
// Input: a log. Each line is also a record of the kernel's.
// sources: daemon/host/server_logs.cpp daemon/host/oom_kills.cpp daemon/host/fpm_pools.cpp daemon/host/proc_files.cpp daemon/base/clock.cpp
#include "host/oom_kills.h"
#include "host/server_logs.h"
#include "require.h"

#include <vector>

using namespace quorbit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string log(reinterpret_cast<const char*>(data), size);
  std::vector<LoggedEnd> apart;
  for (std::string_view rest = log; rest.find('\n') != std::string_view::npos;) {
    const std::string line = take_line(&rest);
    const auto fpm = read_fpm_log(line + "\n"), apache = read_apache_log(line + "\n");
    REQUIRE(fpm.size() + apache.size() <= 1);
    for (const LoggedEnd& end : fpm) REQUIRE(!end.timed_out && line.find("[pool ") != std::string::npos);
    for (const LoggedEnd& end : apache) REQUIRE(line.find("[core:notice] [pid ") != std::string::npos && end.lasted_s < 0);
    apart.insert(apart.end(), fpm.begin(), fpm.end());
    REQUIRE(!oom_killed_in(line) || line.find("Killed process ") != std::string::npos);
  }
  const auto together = read_fpm_log(log);
  REQUIRE(together.size() == apart.size());
  for (size_t i = 0; i < apart.size(); i++) REQUIRE(together[i].process == apart[i].process && together[i].signal == apart[i].signal);
  return 0;
}
