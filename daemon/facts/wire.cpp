// Framing, configuration queries and their answers.
#include "facts/wire.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace quorbit {

// Stamps and numbers travel in the host's byte order; both ends run on this host.
static_assert(std::endian::native == std::endian::little);

Header read_header(const char *bytes)
{
	auto byte = [bytes](int i) { return static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])); };
	return {static_cast<uint8_t>(byte(0)), byte(1) << 16 | byte(2) << 8 | byte(3)};
}

std::optional<std::vector<Record>> read_records(std::string_view body)
{
	std::vector<Record> records;
	if (!for_each_record(body, [&](const Record &record) { records.push_back(record); })) return std::nullopt;
	return records;
}

bool RecordWalk::pass(std::string_view bytes)
{
	left_ -= bytes.size();
	while (!bytes.empty()) {
		size_t passed = std::min(in_record_, bytes.size());
		in_record_ -= passed;
		bytes.remove_prefix(passed);
		if (bytes.empty()) break;
		size_t count = std::min(header_size - header_bytes_, bytes.size());
		memcpy(header_ + header_bytes_, bytes.data(), count);
		bytes.remove_prefix(count);
		header_bytes_ += count;
		if (header_bytes_ < header_size) break;
		header_bytes_ = 0;
		in_record_ = read_header(header_).length;
		if (in_record_ > bytes.size() + left_) return false;
	}
	return true;
}

bool append_record(std::string &out, uint8_t type, std::string_view body)
{
	if (body.size() >= body_limit) return false;
	auto length = static_cast<uint32_t>(body.size());
	out += static_cast<char>(type);
	out += static_cast<char>(length >> 16);
	out += static_cast<char>(length >> 8);
	out += static_cast<char>(length);
	out += body;
	return true;
}

std::string_view Query::environment_value(std::string_view name) const
{
	for (const auto &[key, value] : environment) {
		if (key == name) return value;
	}
	return {};
}

// An agent sends some twenty; a packet of 16 MiB could hold millions.
constexpr size_t most_environment = 1024;

static void read_query_record(const Record &record, Query &query)
{
	switch (record.type) {
	case record_application_name: query.application = record.body; break;
	case record_stamp:
		if (record.body.size() == sizeof query.stamp) memcpy(&query.stamp, record.body.data(), sizeof query.stamp);
		break;
	case record_environment: {
		size_t equals = record.body.find('=');
		if (equals == std::string_view::npos || query.environment.size() == most_environment) break;
		query.environment.emplace_back(record.body.substr(0, equals), record.body.substr(equals + 1));
		break;
	}
	default: break;
	}
}

std::optional<Query> read_query(std::string_view body)
{
	Query query;
	if (!for_each_record(body, [&](const Record &record) { read_query_record(record, query); })) return std::nullopt;
	return query;
}

std::string write_answer(uint64_t stamp, uint64_t agent_stamp, const Settings &settings)
{
	std::string body;
	append_record(body, record_stamp, {reinterpret_cast<const char *>(&stamp), sizeof stamp});
	const size_t stamp_only = body.size();
	bool framed = true;
	if (stamp != agent_stamp) {
		for (const auto &[key, value] : settings)
			framed = framed && append_record(body, record_setting, std::string(key).append("=").append(value));
	}
	std::string packet;
	if (!framed || !append_record(packet, record_app_info, body)) {
		append_record(packet, record_app_info, std::string_view(body).substr(0, stamp_only));
	}
	return packet;
}

} // namespace quorbit
