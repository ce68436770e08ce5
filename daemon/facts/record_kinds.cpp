// The readers of records, and the table of all kinds.
#include "facts/record_kinds.h"

#include "base/json_text.h"
#include "base/number.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace quorbit {

namespace {

// A duration; whatever a packet says, sums of them stay numbers.
bool parse_ms(std::string_view text, int64_t &value)
{
	constexpr int64_t most_ms = 1000000000000;
	if (!parse_number(text, value)) return false;
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
	if (lines.size() < 4 || !parse_number(lines[1], error.status)) return false;
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
	if (lines.size() < 6 || !parse_number(lines[1], error.code)) return false;
	error.name = json_unescape(lines[0]);
	error.status = lines[2];
	error.message = json_unescape(lines[3]);
	error.query = lines[4];
	error.stack = lines[5];
	action.service_errors.push_back(std::move(error));
	return true;
}

template <auto field>
bool read_text(std::string_view body, Action &action)
{
	action.*field = body;
	return true;
}

template <auto field>
bool read_int32(std::string_view body, Action &action)
{
	return read_number(body, action.*field);
}

template <auto field>
bool read_pair(std::string_view body, Action &action)
{
	size_t colon = body.find(": ");
	if (colon == std::string_view::npos) return false;
	(action.*field).push_back({std::string(body.substr(0, colon)), std::string(body.substr(colon + 2))});
	return true;
}

bool read_what_was_left_out(std::string_view body, Action &action)
{
	return read_left_out(body, action.left_out);
}

using enum RecordClass;

constexpr RecordKind kinds[] = {
	{record_account_key, sum, false, read_text<&Action::account_key>},
	{record_application_name, sum, false, read_text<&Action::application>},
	{record_action_name, sum, false, read_text<&Action::name>},
	{record_block_ms, sum, false, read_int32<&Action::block_ms>},
	{record_duration_ms, sum, false, read_int32<&Action::duration_ms>},
	{record_database_ms, sum, false, read_int32<&Action::database_ms>},
	{record_cache_total, sum, true, read_cache_total},
	{record_external_ms, sum, false, read_int32<&Action::external_ms>},
	{record_cpu_ticks, sum, false, read_int32<&Action::cpu_ticks>},
	{record_system_cpu_ticks, sum, false, read_int32<&Action::system_cpu_ticks>},
	{record_transaction_id, sum, false, read_text<&Action::transaction_id>},
	{record_uri, sum, false, read_text<&Action::uri>},
	{record_parameter, parameter, true, read_pair<&Action::parameters>},
	{record_detail, text, true, read_pair<&Action::details>},
	{record_trace, sum, false, read_text<&Action::trace>},
	{record_tracer_id, sum, false, read_text<&Action::tracer_id>},
	{record_sql, statement, true, read_sql},
	{record_service, call, true, read_service},
	{record_error, sum, false, read_error},
	{record_component, call, true, read_component},
	{record_service_error, text, true, read_service_error},
	{record_details, sum, false, nullptr},
	{record_left_out, text, false, read_what_was_left_out},
};

// By type, so that a lookup is one step.
constexpr auto by_type = [] {
	std::array<const RecordKind *, 256> found{};
	for (const RecordKind &kind : kinds) found[kind.type] = &kind;
	return found;
}();

} // namespace

bool take_item(std::string_view &body, std::string_view &item)
{
	size_t colon = body.find(':');
	int64_t length = 0;
	if (colon == std::string_view::npos || !parse_number(body.substr(0, colon), length)) return false;
	body.remove_prefix(colon + 1);
	if (length < 0 || static_cast<uint64_t>(length) > body.size()) return false;
	item = body.substr(0, static_cast<size_t>(length));
	body.remove_prefix(item.size());
	return true;
}

const RecordKind *record_kind(uint8_t type)
{
	return by_type[type];
}

} // namespace quorbit
