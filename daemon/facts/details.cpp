// Decoding of the details record, item by item.
#include "facts/details.h"

#include "base/text.h"
#include "facts/packet.h"
#include "facts/trace.h"

#include <cstring>

namespace quorbit {

namespace {

enum Item : uint8_t {
	item_duration_us = 0x01,
	item_database_us = 0x02,
	item_cache_us = 0x03,
	item_external_us = 0x04,
	item_waited_us = 0x05,
	item_statements = 0x06,
	item_cache_operations = 0x07,
	item_calls = 0x08,
	item_user_us = 0x09,
	item_system_us = 0x0A,
	item_peak_memory = 0x0B,
	item_output = 0x0C,
	item_exit_status = 0x0D,
	item_path = 0x10,
	item_method = 0x11,
	item_host = 0x12,
	item_script = 0x13,
	item_place = 0x20,
	item_runs = 0x21,
	item_error_class = 0x30,
	item_error_message = 0x31,
	item_component = 0x32,
	item_trace_text = 0x33,
	item_call_message = 0x34,
};

// No sum of such figures leaves 64 bits, whatever a packet says.
constexpr int64_t most = int64_t{1} << 48;

struct Place {
	std::string vendor, place;
};

// Takes the number of that many bytes off the front of `body`, in the host's order; 0 if the body is too short.
template <typename T>
T take(std::string_view &body)
{
	T value = 0;
	if (body.size() < sizeof value) {
		body = {};
		return 0;
	}
	memcpy(&value, body.data(), sizeof value);
	body.remove_prefix(sizeof value);
	return value;
}

int64_t figure(std::string_view body)
{
	uint64_t value = take<uint64_t>(body);
	return value > static_cast<uint64_t>(most) ? 0 : static_cast<int64_t>(value);
}

Place read_place(std::string_view body)
{
	uint32_t line = take<uint32_t>(body);
	size_t length = take<uint8_t>(body);
	std::string_view vendor = body.substr(0, length);
	body.remove_prefix(vendor.size());
	std::string file = text_of_bytes(body);
	return {std::string(vendor), file.empty() ? file : file + ":" + std::to_string(line)};
}

void place_statements(std::string_view runs, const std::vector<Place> &places, std::vector<SqlStatement> &statements)
{
	auto statement = statements.begin();
	while (runs.size() >= 4) {
		size_t count = take<uint16_t>(runs), number = take<uint16_t>(runs);
		for (; count && statement != statements.end(); count--, ++statement) {
			if (number >= places.size()) continue;
			if (!places[number].vendor.empty()) statement->vendor = places[number].vendor;
			statement->place = places[number].place;
		}
	}
}

int64_t *figure_of(ExactFigures &figures, uint8_t item)
{
	switch (item) {
	case item_duration_us: return &figures.duration_us;
	case item_database_us: return &figures.database_us;
	case item_cache_us: return &figures.cache_us;
	case item_external_us: return &figures.external_us;
	case item_waited_us: return &figures.waited_us.emplace();
	case item_statements: return &figures.statements;
	case item_cache_operations: return &figures.cache_operations;
	case item_calls: return &figures.calls;
	case item_user_us: return &figures.user_us;
	case item_system_us: return &figures.system_us;
	case item_peak_memory: return &figures.peak_memory;
	case item_output: return &figures.output;
	case item_exit_status: return &figures.exit_status.emplace();
	default: return nullptr;
	}
}

std::string *text_of(Action &action, uint8_t item)
{
	switch (item) {
	case item_path: return &action.path;
	case item_method: return &action.method;
	case item_host: return &action.host;
	case item_script: return &action.script;
	case item_error_class: return action.error ? &action.error->cls : nullptr;
	case item_error_message: return action.error ? &action.error->message : nullptr;
	default: return nullptr;
	}
}

void take_numbered_text(uint8_t item, std::string_view body, Action &action)
{
	size_t number = take<uint32_t>(body);
	if (item == item_trace_text) {
		int field = take<uint8_t>(body);
		action.trace_texts.push_back({number, field, text_of_bytes(body)});
	} else if (item == item_call_message) {
		if (number < action.service_errors.size() && action.left_out.texts == 0)
			action.service_errors[number].message = text_of_bytes(body);
	} else if (number < action.components.size() && action.left_out.calls == 0) {
		action.components[number].name = text_of_bytes(body);
	}
}

} // namespace

bool read_details(std::string_view body, Action &action)
{
	auto items = read_records(body);
	if (!items) return false;
	ExactFigures &figures = action.exact.emplace();
	std::vector<Place> places;
	std::string_view runs;
	for (const Record &item : *items) {
		if (int64_t *number = figure_of(figures, item.type))
			*number = figure(item.body);
		else if (std::string *text = text_of(action, item.type))
			*text = text_of_bytes(item.body);
		else if (item.type == item_place)
			places.push_back(read_place(item.body));
		else if (item.type == item_runs)
			runs = item.body;
		else if (item.type == item_component || item.type == item_trace_text || item.type == item_call_message)
			take_numbered_text(item.type, item.body, action);
	}
	for (SqlStatement &sql : action.statements) sql.statement = text_of_bytes(sql.statement);
	// Places and names count the records of the packet as it was sent.
	if (action.left_out.statements == 0) place_statements(runs, places, action.statements);
	return true;
}

void apply_whole_texts(const std::vector<WholeTraceText> &texts, std::vector<TraceNode> &nodes)
{
	for (const WholeTraceText &whole : texts) {
		if (whole.node >= nodes.size()) continue;
		TraceNode &node = nodes[whole.node];
		if (whole.field == 1) node.cls = whole.text;
		if (whole.field == 2) node.func = whole.text;
		if (whole.field == 3) node.sql = whole.text;
	}
}

} // namespace quorbit
