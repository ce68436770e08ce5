// Records as literal bytes for the daemon's tests, made without the code under test.
#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace quorbit_test {

using namespace std::string_literals;
using namespace std::string_view_literals;

// A record with its header; bodies in tests are shorter than 65536 bytes.
inline std::string record(int type, std::string_view body) {
  std::string bytes;
  bytes += static_cast<char>(type);
  bytes += '\0';
  bytes += static_cast<char>(body.size() / 256);
  bytes += static_cast<char>(body.size() % 256);
  return bytes.append(body);
}

inline std::string number(int32_t value) { return {reinterpret_cast<const char*>(&value), sizeof value}; }

// The body of a metric packet: the records that every action has, then `more`.
inline std::string action_body(const std::string& application, const std::string& name, int duration_ms,
                               const std::string& more = "") {
  return record(0x11, application) + record(0x0E, "account") + record(0x12, name) + record(0x1A, number(3)) +
         record(0x1B, number(900)) + record(0x14, number(7)) + record(0x15, number(duration_ms)) + more;
}

// A file of data/, whole.
inline std::string data(const std::string& name) {
  const std::string here = __FILE__;
  std::ifstream file(here.substr(0, here.rfind('/')) + "/data/" + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace quorbit_test
