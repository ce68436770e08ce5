// Decoding of the radar's record, item by item.
#include "facts/radar.h"

#include "base/number.h"
#include "base/text.h"
#include "facts/wire.h"

#include <cstring>

namespace quorbit {

namespace {

enum : uint8_t { item_file = 0x01, item_site = 0x02, item_function = 0x03 };
constexpr size_t most_text = 4096;

// A line in the host's order, and the bytes behind it; false when the body is too short for both.
bool take_head(std::string_view &body, int64_t &line, uint8_t *bytes, size_t count)
{
	uint32_t number;
	if (body.size() < sizeof number + count) return false;
	memcpy(&number, body.data(), sizeof number);
	memcpy(bytes, body.data() + sizeof number, count);
	body.remove_prefix(sizeof number + count);
	line = number;
	return true;
}

void read_site(std::string_view body, const std::string &file, RadarFindings &findings)
{
	RadarSite site;
	uint8_t head[3]; // sign, evidence, length of the name
	if (!take_head(body, site.line, head, sizeof head) || head[2] > body.size()) return;
	const std::string_view name = body.substr(0, head[2]);
	if (!zq_radar_rule_of(head[0], name)) return;
	site.file = file;
	site.sign = head[0];
	site.ran = head[1] != 0;
	site.name = text_of_bytes(name);
	site.function = text_of_bytes(body.substr(head[2]).substr(0, most_text));
	findings.sites.push_back(std::move(site));
}

void read_function(std::string_view body, const std::string &file, RadarFindings &findings)
{
	RadarFunction function;
	uint8_t called;
	if (!take_head(body, function.line, &called, 1) || body.empty()) return;
	function.file = file;
	function.name = text_of_bytes(body.substr(0, most_text));
	function.called = called != 0;
	findings.functions.push_back(std::move(function));
}

} // namespace

std::optional<RadarFindings> read_radar(std::string_view body)
{
	RadarFindings findings;
	std::string file;
	const bool framed = for_each_record(body, [&](const Record &item) {
		if (item.type == item_file) file = text_of_bytes(item.body.substr(0, most_text));
		if (file.empty()) return;
		if (item.type == item_site) read_site(item.body, file, findings);
		if (item.type == item_function) read_function(item.body, file, findings);
	});
	if (!framed) return std::nullopt;
	return findings;
}

std::string take_radar(std::string &packet)
{
	std::string taken;
	size_t begin = 0, size = 0;
	const bool framed = for_each_record(packet, [&](const Record &record) {
		if (record.type != record_radar) return;
		begin = static_cast<size_t>(record.body.data() - packet.data()) - header_size;
		size = header_size + record.body.size();
		taken = record.body;
	});
	if (!framed) return "";
	packet.erase(begin, size);
	return taken;
}

std::string version_text(int version)
{
	return std::to_string(version / 100) + "." + std::to_string(version % 100);
}

std::optional<int> read_version(std::string_view text)
{
	const size_t dot = text.find('.');
	int64_t major = 0, minor = 0;
	if (!parse_number(text.substr(0, dot), major) || major < 5 || major > 99) return std::nullopt;
	if (dot == std::string_view::npos) return static_cast<int>(major) * 100;
	if (!parse_number(text.substr(dot + 1), minor) || minor < 0 || minor > 99) return std::nullopt;
	return static_cast<int>(major * 100 + minor);
}

} // namespace quorbit
