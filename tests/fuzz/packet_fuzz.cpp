// What agents send to the local daemon, decoded, summed, cut to its share and reported: every packet that is taken prints as
// harmless text and as JSON that strict parsers take, in every width and form.
// Input: a number for the width, then the packet's body.
// sources: daemon/facts/packet.cpp daemon/facts/record_kinds.cpp daemon/facts/details.cpp daemon/facts/radar.cpp daemon/facts/wire.cpp daemon/facts/share.cpp daemon/facts/keys.cpp daemon/facts/places.cpp daemon/facts/path_text.cpp daemon/facts/sums.cpp daemon/facts/histogram.cpp daemon/base/json_text.cpp daemon/base/text.cpp daemon/base/cells.cpp daemon/base/clock.cpp daemon/print/page.cpp daemon/facts/plan.cpp daemon/facts/plan_advice.cpp daemon/facts/sql_text.cpp daemon/facts/trace.cpp daemon/print/trace_text.cpp daemon/print/trace_shapes.cpp daemon/print/report_action.cpp daemon/print/report_sql.cpp daemon/print/report_json.cpp daemon/print/report_list.cpp daemon/print/report_profile.cpp
// libraries: nlohmann_json sqlite3
#include "facts/keys.h"
#include "facts/radar.h"
#include "print/report.h"
#include "require.h"
#include "base/text.h"

#include <nlohmann/json.hpp>

using namespace quorbit;

namespace {

void check_text(const std::string& text) {
  REQUIRE(valid_utf8(text) == text);
  for (char byte : text) REQUIRE(byte == '\n' || (static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F));
}

void check_json(const Json& value) {
  for (bool pretty : {false, true}) {
    std::string text = json_text(value, pretty);
    REQUIRE(valid_utf8(text) == text);
    REQUIRE(Json::accept(text));
  }
}

// As the store tells what it has kept of an action.
StoredAction stored(int64_t id, const Action& action) {
  ActionRow row{id, 0, 1, action.application, action.name, action.duration_ms, action.database_ms, action.cache_ms,
                action.external_ms, action.code_ms(), action.status(), action.error.has_value(), action.exact, action.path};
  return {row, action};
}

void check_action(const Action& action, size_t width) {
  StoredAction shown = stored(1, action), other = stored(2, action);
  std::vector<RelatedAction> related = {relate(shown, called_tracer_ids(action), other)};
  for (bool full : {false, true}) check_text(action_text(shown, related, width, full));
  check_text(action_table({shown.row}, width, 1000));
  check_text(tail_line(shown.row, width, 1000));
  check_json(action_json(shown, related));
  check_json(action_summary(shown.row));
}

void check_query(const Query& query) {
  Settings settings(query.environment.begin(), query.environment.end());
  std::string packet = write_answer(7, query.stamp, settings);
  REQUIRE(packet.size() > header_size && read_header(packet.data()).length == packet.size() - header_size);
  size_t records = 0;
  REQUIRE(for_each_record(std::string_view(packet).substr(header_size), [&](const Record&) { records++; }));
  REQUIRE(records == (query.stamp == 7 ? 1 : 1 + settings.size()));
}

void check_radar(std::string packet) {
  const auto found = read_radar(take_radar(packet));
  for (const RadarSite& site : found.value_or(RadarFindings()).sites) {
    REQUIRE(zq_radar_rule_of(site.sign, site.name) && !site.file.empty());
    REQUIRE(valid_utf8(site.file + site.function) == site.file + site.function);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return -1;
  // Commands never print in fewer columns.
  size_t width = 60 + data[0];
  std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  check_radar(body);
  if (auto action = read_action(body)) {
    check_action(*action, width);
    for (const KeySums& key : keys_of(*action)) REQUIRE(key.sums.count >= 0 && key.facts.name.size() <= 1024);
    if (auto head = within_share(body, head_share)) REQUIRE(read_action(*head));
  }
  if (auto query = read_query(body)) check_query(*query);
  if (auto event = read_profile_event(body)) {
    ProfilePrinter printer;
    for (int i = 0; i < 3; i++) check_text(printer.add(*event));
  }
  return 0;
}
