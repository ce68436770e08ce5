// What the daemon's tests share: records as literal bytes, made without the code under test; data files; a folder of one's own.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>

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

// Puts the packets into the store of that file, with their sums.
template <typename Store, typename Packets>
void add_to_store(const std::string& path, const Packets& packets) {
  Store store(path);
  store.begin();
  for (const auto& packet : packets) store.add(packet);
  store.commit();
  store.write_sums();
}

// A whole file; "" when there is none.
inline std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A file of tests/unit/data.
inline std::string data(const std::string& name) {
  return contents(std::filesystem::path(__FILE__).parent_path() / "../unit/data" / name);
}

// Whether the condition holds within half a minute; it is looked at every 5 ms.
inline bool becomes_true(const std::function<bool()>& condition) {
  for (int i = 0; i < 6000; i++) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// A folder that goes with the object, and all in it; its path is empty when it could not be made.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    if (!mkdtemp(path_.data())) path_.clear();
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_ = "/tmp/quorbit-test-XXXXXX";
};

}  // namespace quorbit_test
