// Decoding of metric and thread-profile packets, record by record.
#include "facts/packet.h"

#include "base/json_text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace quorbit {

namespace {

bool parse_integer(std::string_view text, int64_t &value)
{
	auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
	return failure == std::errc() && end == text.data() + text.size();
}

// A duration; whatever a packet says, sums of them stay numbers.
bool parse_ms(std::string_view text, int64_t &value)
{
	constexpr int64_t most_ms = 1000000000000;
	if (!parse_integer(text, value)) return false;
	value = std::clamp(value, int64_t{0}, most_ms);
	return true;
}

std::vector<std::string_view> split_lines(std::string_view text, size_t most)
{
	std::vector<std::string_view> lines;
	while (lines.size() + 1 < most) {
		size_t end = text.find('\n');
		if (end == std::string_view::npos) break;
		lines.push_back(text.substr(0, end));
		text.remove_prefix(end + 1);
	}
	lines.push_back(text);
	return lines;
}

bool read_number(std::string_view body, int64_t &value)
{
	int32_t number;
	if (body.size() != sizeof number) return false;
	memcpy(&number, body.data(), sizeof number);
	value = number;
	return true;
}

// One "<length>:<bytes>" item off the front of `body`.
bool take_item(std::string_view &body, std::string_view &item)
{
	size_t colon = body.find(':');
	int64_t length = 0;
	if (colon == std::string_view::npos || !parse_integer(body.substr(0, colon), length)) return false;
	body.remove_prefix(colon + 1);
	if (length < 0 || static_cast<uint64_t>(length) > body.size()) return false;
	item = body.substr(0, static_cast<size_t>(length));
	body.remove_prefix(item.size());
	return true;
}

bool read_sql(std::string_view body, Action &action)
{
	SqlStatement sql;
	std::string_view metric, vendor, statement, extra;
	if (!take_item(body, metric) || !parse_ms(metric, sql.duration_ms)) return false;
	if (!take_item(body, vendor) || !take_item(body, statement)) return false;
	sql.vendor = vendor;
	sql.statement = statement;
	while (!body.empty()) {
		if (!take_item(body, extra)) return false;
		// Stack and plan are both optional and not marked: a stack is a JSON list, a plan an object.
		(extra.starts_with('{') ? sql.plan : sql.stack) = extra;
	}
	action.statements.push_back(std::move(sql));
	return true;
}

bool read_service(std::string_view body, Action &action)
{
	auto lines = split_lines(body, 6);
	if (lines.size() < 4) return false;
	int64_t duration_ms = 0;
	// A text of the caches is cut at 127 bytes, and may have lost its figure with the end.
	bool cut = !parse_ms(lines[3], duration_ms);
	if (lines[0] != "http") {
		CacheCall call{std::string(lines[0]), std::string(lines[1]), std::string(lines[2]), cut ? 0 : duration_ms};
		action.caches.push_back(std::move(call));
		return true;
	}
	if (cut) return false;
	ServiceCall call{json_unescape(lines[1]), duration_ms, {}, {}};
	if (lines.size() == 6) {
		call.callee_id = lines[4];
		call.callee_action = lines[5];
	}
	action.services.push_back(std::move(call));
	return true;
}

bool read_cache_total(std::string_view body, Action &action)
{
	auto lines = split_lines(body, 2);
	int64_t total_ms = 0;
	if (lines.size() != 2 || !parse_ms(lines[0], total_ms)) return false;
	action.cache_ms += total_ms;
	action.cache_totals.push_back({std::string(lines[1]), std::string(lines[0])});
	return true;
}

bool read_component(std::string_view body, Action &action)
{
	auto lines = split_lines(body, 3);
	Component component;
	if (lines.size() != 3 || !parse_ms(lines[0], component.duration_ms)) return false;
	if (!parse_ms(lines[1], component.own_ms)) return false;
	component.name = json_unescape(lines[2]);
	action.components.push_back(std::move(component));
	return true;
}

bool read_error(std::string_view body, Action &action)
{
	auto lines = split_lines(body, 5);
	ErrorInfo error;
	if (lines.size() < 4 || !parse_integer(lines[1], error.status)) return false;
	error.cls = json_unescape(lines[2]);
	error.message = json_unescape(lines[3]);
	if (lines.size() == 5) error.stack = lines[4];
	action.error = std::move(error);
	return true;
}

bool read_service_error(std::string_view body, Action &action)
{
	auto lines = split_lines(body, 6);
	ServiceError error;
	if (lines.size() < 6 || !parse_integer(lines[1], error.code)) return false;
	error.name = json_unescape(lines[0]);
	error.status = lines[2];
	error.message = json_unescape(lines[3]);
	error.query = lines[4];
	error.stack = lines[5];
	action.service_errors.push_back(std::move(error));
	return true;
}

bool read_pair(std::string_view body, std::vector<NameValue> &list)
{
	size_t colon = body.find(": ");
	if (colon == std::string_view::npos) return false;
	list.push_back({std::string(body.substr(0, colon)), std::string(body.substr(colon + 2))});
	return true;
}

// Whether each record of the type makes an entry of a list; of the others the last one holds.
bool is_listed(uint8_t type)
{
	switch (type) {
	case record_application_name:
	case record_account_key:
	case record_action_name:
	case record_uri:
	case record_cpu_ticks:
	case record_system_cpu_ticks:
	case record_block_ms:
	case record_duration_ms:
	case record_database_ms:
	case record_external_ms:
	case record_error:
	case record_trace:
	case record_transaction_id:
	case record_tracer_id:
	case record_left_out: return false;
	default: return true;
	}
}

// False for a record that this version does not understand.
bool read_action_record(const Record &record, Action &action)
{
	switch (record.type) {
	case record_application_name: action.application = record.body; return true;
	case record_account_key: action.account_key = record.body; return true;
	case record_action_name: action.name = record.body; return true;
	case record_uri: action.uri = record.body; return true;
	case record_cpu_ticks: return read_number(record.body, action.cpu_ticks);
	case record_system_cpu_ticks: return read_number(record.body, action.system_cpu_ticks);
	case record_block_ms: return read_number(record.body, action.block_ms);
	case record_duration_ms: return read_number(record.body, action.duration_ms);
	case record_database_ms: return read_number(record.body, action.database_ms);
	case record_external_ms: return read_number(record.body, action.external_ms);
	case record_sql: return read_sql(record.body, action);
	case record_service: return read_service(record.body, action);
	case record_cache_total: return read_cache_total(record.body, action);
	case record_component: return read_component(record.body, action);
	case record_error: return read_error(record.body, action);
	case record_service_error: return read_service_error(record.body, action);
	case record_trace: action.trace = record.body; return true;
	case record_transaction_id: action.transaction_id = record.body; return true;
	case record_tracer_id: action.tracer_id = record.body; return true;
	case record_detail: return read_pair(record.body, action.details);
	case record_parameter: return read_pair(record.body, action.parameters);
	case record_left_out: return read_left_out(record.body, action.left_out);
	default: return false;
	}
}

// Takes the next space-separated word off the front of `line`.
std::string_view take_word(std::string_view &line)
{
	size_t blank = line.find(' ');
	std::string_view word = line.substr(0, blank);
	line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
	return word;
}

bool read_profile_line(std::string_view line, ProfileEvent &event)
{
	if (!parse_integer(take_word(line), event.at_ms) || !parse_integer(take_word(line), event.thread)) return false;
	std::string_view direction = take_word(line);
	if (direction != "enter" && direction != "leave") return false;
	event.enter = direction == "enter";
	event.kind = take_word(line);
	event.name = line;
	return true;
}

} // namespace

int64_t Action::status() const
{
	for (const NameValue &detail : details) {
		int64_t code = 0;
		if (detail.name == "httpStatus" && parse_integer(detail.value, code)) return code;
	}
	return error ? error->status : 0;
}

int64_t Action::code_ms() const
{
	int64_t rest = duration_ms - database_ms - cache_ms - external_ms;
	return rest > 0 ? rest : 0;
}

constexpr size_t most_unknown = 1024;

std::optional<Action> read_action(std::string_view body)
{
	size_t listed = 0;
	Action action;
	std::string_view details;
	bool framed = for_each_record(body, [&](const Record &record) {
		if (record.type == record_details) {
			details = record.body;
			return;
		}
		bool fits = !is_listed(record.type) || listed++ < most_listed_records;
		if (fits && read_action_record(record, action)) return;
		if (fits && action.unknown.size() < most_unknown)
			action.unknown.push_back({record.type, std::string(record.body)});
		else
			action.unread++;
	});
	if (!framed) return std::nullopt;
	// Last, wherever it stood: it tells more of what the others brought.
	if (!details.empty() && !read_details(details, action))
		action.unknown.push_back({record_details, std::string(details)});
	return action;
}

std::optional<ProfileEvent> read_profile_event(std::string_view body)
{
	ProfileEvent event;
	bool has_line = false;
	bool framed = for_each_record(body, [&](const Record &record) {
		if (record.type == record_application_name) event.application = record.body;
		if (record.type == record_profile_line) has_line = read_profile_line(record.body, event);
	});
	if (!framed) return std::nullopt;
	if (!has_line) return std::nullopt;
	return event;
}

} // namespace quorbit
