// What the radar has found, for people, programs, spreadsheets and code scanning.
#pragma once

#include "base/json_text.h"
#include "store/sqlite_radar.h"

#include <string>

namespace quorbit {

// Text in `width` columns: by version what is in the way of it, then the functions that nobody called.
std::string radar_text(const RadarAnswer &answer, const RadarQuestion &question, size_t width);
Json radar_json(const RadarAnswer &answer);
// A line of titles, then one per place, as sums_csv() writes it. Functions are not in it.
std::string radar_csv(const RadarAnswer &answer);
// A log of SARIF 2.1.0 (https://docs.oasis-open.org/sarif/sarif/v2.1.0/): a rule per row of the table, a result per
// place; what is removed is an error, what is changed a warning, what is deprecated a note.
Json radar_sarif(const RadarAnswer &answer);

} // namespace quorbit
