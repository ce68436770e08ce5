// The framing that agents and the daemon speak: every record is one byte of type, three bytes of body length
// (big-endian) and the body, without padding. docs/protocol.md is the page for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorbit {

enum RecordType : uint8_t {
	// packets
	record_thread_profile = 0x09,
	record_app_info = 0x0A,
	record_metric = 0x0B,
	// records inside them
	record_stamp = 0x0C,
	record_setting = 0x0D,
	record_account_key = 0x0E,
	record_application_name = 0x11,
	record_action_name = 0x12,
	record_block_ms = 0x14,
	record_duration_ms = 0x15,
	record_database_ms = 0x16,
	record_cache_total = 0x17,
	record_external_ms = 0x18,
	record_cpu_ticks = 0x1A,
	record_system_cpu_ticks = 0x1B,
	record_environment = 0x1C,
	record_transaction_id = 0x20,
	record_uri = 0x21,
	record_parameter = 0x23,
	record_detail = 0x24,
	record_trace = 0x25,
	record_tracer_id = 0x26,
	record_sql = 0x27,
	record_service = 0x29,
	record_error = 0x2A,
	record_component = 0x2B,
	record_profile_line = 0x2C,
	record_service_error = 0x2D,
	record_details = 0x60,
	record_left_out = 0xF0, // in the store alone: what was left out of a packet
};

constexpr size_t header_size = 4;
constexpr size_t body_limit = size_t{1} << 24; // a body is shorter than this

struct Header {
	uint8_t type;
	uint32_t length; // bytes of body
};

// A view into the packet that it was read from.
struct Record {
	uint8_t type;
	std::string_view body;
};

using Settings = std::map<std::string, std::string, std::less<>>;

// The header at `bytes`, of which there must be header_size.
Header read_header(const char *bytes);

// Calls on_record(record) for each of the records that fill `body`, in their order. False when a header is cut short or
// a length overruns; what came before it has been called for.
template <typename OnRecord>
bool for_each_record(std::string_view body, OnRecord on_record)
{
	while (!body.empty()) {
		if (body.size() < header_size) return false;
		Header header = read_header(body.data());
		body.remove_prefix(header_size);
		if (header.length > body.size()) return false;
		on_record(Record{header.type, body.substr(0, header.length)});
		body.remove_prefix(header.length);
	}
	return true;
}

// The records that fill `body` exactly, as a list; nothing where for_each_record() is false.
std::optional<std::vector<Record>> read_records(std::string_view body);

// Follows the records of a packet's body as it arrives, in pieces of any length, and keeps none of it.
class RecordWalk {
public:
	explicit RecordWalk(size_t body_bytes = 0) : left_(body_bytes) {}

	// The next bytes of the body, no more than are left of it. False when a record overruns it.
	bool pass(std::string_view bytes);

	// Whether no record is left incomplete; asked when all of the body was passed.
	bool at_end() const { return header_bytes_ == 0; }

private:
	size_t left_;          // of the body
	size_t in_record_ = 0; // of the record that is being passed
	char header_[header_size];
	size_t header_bytes_ = 0;
};

// Appends one record. False, with nothing appended, when the body cannot be framed (body_limit bytes or more).
bool append_record(std::string &out, uint8_t type, std::string_view body);

// What an agent says of itself when it asks for an application's configuration.
struct Query {
	std::string application;
	uint64_t stamp = 0; // of the configuration it has; 0 for none
	std::vector<std::pair<std::string, std::string>> environment;
	// The value of an environment entry, or "".
	std::string_view environment_value(std::string_view name) const;
};

// Reads the body of a configuration query. Nothing when its records overrun.
std::optional<Query> read_query(std::string_view body);

// The complete answer packet. The stamp comes first, because a new one makes the agent drop what it had; to an agent
// that has this stamp already it is all that is sent. Settings that cannot be framed are left out together.
std::string write_answer(uint64_t stamp, uint64_t agent_stamp, const Settings &settings);

} // namespace quorbit
