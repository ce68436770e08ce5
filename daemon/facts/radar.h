// The record of the radar: uses of what later versions of PHP removed or changed, and functions with whether they are
// called.
#pragma once

#include "zqp_radar_names.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorbit {

constexpr uint8_t record_radar = 0x61; // of a metric packet, behind all others

constexpr int64_t radar_days = 90; // findings are kept for so long after they were last seen

struct RadarSite {
	std::string file;
	int64_t line = 0; // 0 for a setting of php.ini
	uint8_t sign = 0; // zq_radar_sign
	std::string name;
	std::string function; // in which it is; "" outside of functions, or when that is not known
	bool ran = false;     // else it was seen in compiled code

	bool operator==(const RadarSite &) const = default;
};

struct RadarFunction {
	std::string file;
	int64_t line = 0; // on which it begins
	std::string name; // "class::function"
	bool called = false;

	bool operator==(const RadarFunction &) const = default;
};

struct RadarFindings {
	std::vector<RadarSite> sites;
	std::vector<RadarFunction> functions;

	bool operator==(const RadarFindings &) const = default;
};

// Reads the record's body. Nothing when it overruns; an item that is malformed or unknown, or of a rule that this
// version does not know, is skipped. Texts that are not UTF-8 are taken for Latin-1.
std::optional<RadarFindings> read_radar(std::string_view body);

// Takes the record out of the body of a metric packet, whose share of the store is not meant for it. "" when it has
// none.
std::string take_radar(std::string &packet);

// "7.4" for 704.
std::string version_text(int version);
// 704 for "7.4"; nothing for what is no version.
std::optional<int> read_version(std::string_view text);

} // namespace quorbit
