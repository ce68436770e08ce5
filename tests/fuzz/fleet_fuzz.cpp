// What a fleet's server answers, which may be anything: whoever has its password writes there, and whoever stands in its place
// answers. Every question ends, with an answer or an exception, and prints as harmless text and as JSON that strict parsers take.
// And sums as they are kept, which come from there too: whatever is read adds up without limits, and reads back as it was written.
// Input: which question; then answers, each after its length in two bytes. The last one is repeated for as long as anybody asks.
// sources: daemon/store/clickhouse_reader.cpp daemon/store/clickhouse_sums.cpp daemon/store/fleet_layout.cpp daemon/store/row_binary.cpp daemon/store/sum_answers.cpp daemon/store/sum_plan.cpp daemon/store/sum_rows.cpp daemon/store/reader.cpp daemon/facts/sums.cpp daemon/facts/histogram.cpp daemon/facts/share.cpp daemon/facts/packet.cpp daemon/facts/record_kinds.cpp daemon/facts/details.cpp daemon/facts/wire.cpp daemon/facts/keys.cpp daemon/facts/places.cpp daemon/facts/path_text.cpp daemon/facts/plan.cpp daemon/facts/plan_advice.cpp daemon/facts/sql_text.cpp daemon/facts/trace.cpp daemon/base/store_url.cpp daemon/base/files.cpp daemon/base/text.cpp daemon/base/clock.cpp daemon/base/cells.cpp daemon/base/json_text.cpp daemon/print/page.cpp daemon/print/report_list.cpp daemon/print/report_json.cpp daemon/print/report_sql.cpp daemon/print/trace_shapes.cpp
// libraries: nlohmann_json sqlite3
#include "store/clickhouse_reader.h"

#include "base/text.h"
#include "print/report.h"
#include "require.h"
#include "store/clickhouse.h"
#include "store/fleet_layout.h"

#include <nlohmann/json.hpp>

#include <deque>

using namespace quorbit;

namespace {

constexpr int most_asked = 100'000;
std::deque<std::string> answers;
int asked = 0;

}  // namespace

// A server in place of the one that is reached over HTTP.
ClickHouse::ClickHouse(StoreUrl url, std::chrono::seconds most_time, const std::atomic<bool>* stopping, size_t most_answer)
    : url_(std::move(url)), most_time_(most_time), stopping_(stopping), most_answer_(most_answer) {}
ClickHouse::~ClickHouse() = default;
std::string ClickHouse::ask(const std::string&) {
  REQUIRE(++asked < most_asked);
  if (answers.empty()) return "";
  std::string answer = answers.front();
  if (answers.size() > 1) answers.pop_front();
  return answer;
}
std::string ClickHouse::ask_host(size_t, const std::string& sql) { return ask(sql); }
void ClickHouse::insert(const std::string&, const std::string&, const std::string&) {}
std::string quorbit::quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

namespace {

void check_text(const std::string& text) {
  REQUIRE(valid_utf8(text) == text);
  for (char byte : text) REQUIRE(byte == '\n' || (static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F));
}

void check_sums(const Sums& sums) {
  for (double share : {0.0, 0.5, 0.99, 1.0}) REQUIRE(sums.durations.percentile_us(share) >= 0);
  Sums again;
  REQUIRE(again.add_bytes(sums.bytes()) && again.durations.count() == sums.durations.count() && again.count == sums.count);
  again.add(sums);
  REQUIRE(again.count >= sums.count && again.total_us >= sums.total_us);
}

void ask(Reader& reader, int which) {
  const TimeRange hours{1'700'000'000'000, 1'700'000'000'000 + 5 * hour_ms};
  switch (which % 8) {
    case 0:
      for (const ActionRow& row : reader.actions({{.name_glob = "*[a"}, static_cast<ActionOrder>(which / 8 % 3), 3000})) {
        check_text(action_table({row}, 80, 1000));
        REQUIRE(Json::accept(json_text(action_summary(row), false)));
      }
      break;
    case 1: {
      const SumQuestion question{static_cast<SumKey>(which / 8 % 9), {hours, "", "*", 0, which / 72 % 2}, SumOrder::p95, 10, 7};
      const SumAnswer answer = reader.sums(question);
      check_sums(answer.all);
      for (const SumRow& row : answer.rows) check_sums(row.sums);
      break;
    }
    case 2:
      for (const SeriesPoint& point : reader.series({SumKey::action, {hours}, minute_ms})) check_sums(point.sums);
      break;
    case 3: reader.each_related({1, "a", {"b"}}, [](const StoredAction&) {}); break;
    case 4:
      for (const MachineRow& row : reader.machine({hours, hour_ms})) REQUIRE(valid_utf8(local_time(row.at_ms)) != "");
      break;
    case 5: reader.applications(); break;
    case 6: reader.releases("Shop"), reader.dropped(hours, "Shop"), reader.hosts(), reader.position(); break;
    case 7: reader.key(SumKey::query, 7); break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return -1;
  asked = 0;
  answers.clear();
  const int which = data[0];
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  Sums sums;
  if (sums.add_bytes(rest)) check_sums(sums);
  answers.emplace_back("\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0", 16);  // the layout, which is ours
  while (rest.size() > 2) {
    const size_t length = static_cast<unsigned char>(rest[0]) | static_cast<unsigned char>(rest[1]) << 8;
    answers.emplace_back(rest.substr(2, length));
    rest.remove_prefix(std::min(rest.size(), 2 + length));
  }
  try {
    ask(*open_clickhouse_reader({false, "", "", {"server:1"}, "quorbit"}), which);
  } catch (const std::runtime_error&) {
  }
  return 0;
}
