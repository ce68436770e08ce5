// Decoding of the details record, item by item.
#include "facts/details.h"

#include "base/text.h"
#include "facts/packet.h"
#include "facts/trace.h"

#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

namespace quorbit {

namespace {

// No sum of such figures leaves 64 bits, whatever a packet says.
constexpr int64_t most = int64_t{1} << 48;

struct VendorPlace {
	std::string vendor, place, caller;
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

std::string file_and_number(std::string_view file, uint32_t line)
{
	std::string text = text_of_bytes(file);
	return text.empty() ? text : text + ":" + std::to_string(line);
}

VendorPlace read_place(std::string_view body)
{
	uint32_t line = take<uint32_t>(body);
	size_t length = take<uint8_t>(body);
	std::string_view vendor = body.substr(0, length);
	body.remove_prefix(vendor.size());
	return {std::string(vendor), file_and_number(body, line), {}};
}

// Of the last place that was read.
void read_caller(std::string_view body, std::vector<VendorPlace> &places)
{
	uint32_t line = take<uint32_t>(body);
	if (!places.empty()) places.back().caller = file_and_number(body, line);
}

void place_statements(
	std::string_view runs, const std::vector<VendorPlace> &places, std::vector<SqlStatement> &statements)
{
	auto statement = statements.begin();
	while (runs.size() >= 4) {
		size_t count = take<uint16_t>(runs), number = take<uint16_t>(runs);
		for (; count && statement != statements.end(); count--, ++statement) {
			if (number >= places.size()) continue;
			if (!places[number].vendor.empty()) statement->vendor = places[number].vendor;
			statement->place = places[number].place;
			statement->caller = places[number].caller;
		}
	}
}

int64_t *figure_of(ExactFigures &figures, uint8_t item)
{
	for (const FigureRow &row : figure_rows) {
		if (row.item != item) continue;
		if (auto always = std::get_if<int64_t ExactFigures::*>(&row.field)) return &(figures.**always);
		return &(figures.*std::get<std::optional<int64_t> ExactFigures::*>(row.field)).emplace();
	}
	return nullptr;
}

std::string *text_of(Action &action, uint8_t item)
{
	switch (item) {
	case ZQ_ITEM_PATH: return &action.path;
	case ZQ_ITEM_METHOD: return &action.method;
	case ZQ_ITEM_HOST: return &action.host;
	case ZQ_ITEM_SCRIPT: return &action.script;
	case ZQ_ITEM_ERROR_CLASS: return action.error ? &action.error->cls : nullptr;
	case ZQ_ITEM_ERROR_MESSAGE: return action.error ? &action.error->message : nullptr;
	default: return nullptr;
	}
}

// Frames by the number of their stack, each with its number in it.
using WholeFrames = std::map<size_t, std::vector<std::pair<size_t, std::string>>>;

// Reads each stack once, however many frames a packet has for it.
void put_frames(const WholeFrames &frames, Action &action)
{
	size_t stack_number = 0;
	auto put = [&](std::string &stack) {
		auto found = stack.empty() ? frames.end() : frames.find(stack_number++);
		auto list = found == frames.end() ? std::nullopt : parse_agent_json(stack);
		if (!list || !list->is_array()) return;
		for (const auto &[number, text] : found->second) {
			if (number < list->size()) (*list)[number] = text;
		}
		stack = list->dump(-1, ' ', false, Json::error_handler_t::replace);
	};
	for (SqlStatement &sql : action.statements) put(sql.stack);
	if (action.error) put(action.error->stack);
	for (ServiceError &error : action.service_errors) put(error.stack);
}

void take_numbered_text(uint8_t item, std::string_view body, Action &action, WholeFrames &frames)
{
	size_t number = take<uint32_t>(body);
	if (item == ZQ_ITEM_FRAME) {
		size_t frame = take<uint8_t>(body);
		frames[number].emplace_back(frame, text_of_bytes(body));
	} else if (item == ZQ_ITEM_TRACE_TEXT) {
		int field = take<uint8_t>(body);
		action.trace_texts.push_back({number, field, text_of_bytes(body)});
	} else if (item == ZQ_ITEM_CALL_MESSAGE) {
		if (number < action.service_errors.size() && action.left_out.texts == 0)
			action.service_errors[number].message = text_of_bytes(body);
	} else if (number < action.components.size() && action.left_out.calls == 0) {
		action.components[number].name = text_of_bytes(body);
	}
}

void read_trace_context(std::string_view body, Action &action)
{
	constexpr size_t trace_id_size = 16, span_size = 8;
	if (body.size() < trace_id_size + 2 * span_size) return;
	TraceContext &context = action.trace_context.emplace();
	context.trace_id = body.substr(0, trace_id_size);
	context.span = body.substr(trace_id_size, span_size);
	context.parent = body.substr(trace_id_size + span_size, span_size);
	if (context.parent == std::string(span_size, '\0')) context.parent.clear();
}

void read_call_span(std::string_view body, Action &action)
{
	constexpr uint32_t no_node = 0xFFFFFFFF;
	constexpr size_t span_size = 8;
	if (body.size() < 32) return;
	CallSpan span;
	span.id = body.substr(0, span_size);
	body.remove_prefix(span_size);
	const uint32_t call = take<uint32_t>(body), node = take<uint32_t>(body);
	if (action.left_out.calls == 0) span.call = call;
	if (node != no_node) span.node = node;
	span.start_us = figure(body.substr(0, sizeof(uint64_t)));
	span.duration_us = figure(body.substr(sizeof(uint64_t)));
	action.call_spans.push_back(std::move(span));
}

} // namespace

bool read_details(std::string_view body, Action &action)
{
	auto items = read_records(body);
	if (!items) return false;
	ExactFigures &figures = action.exact.emplace();
	std::vector<VendorPlace> places;
	std::string_view runs;
	WholeFrames frames;
	for (const Record &item : *items) {
		if (int64_t *number = figure_of(figures, item.type))
			*number = figure(item.body);
		else if (std::string *text = text_of(action, item.type))
			*text = text_of_bytes(item.body);
		else if (item.type == ZQ_ITEM_PLACE)
			places.push_back(read_place(item.body));
		else if (item.type == ZQ_ITEM_CALLER)
			read_caller(item.body, places);
		else if (item.type == ZQ_ITEM_RUNS)
			runs = item.body;
		else if (item.type == ZQ_ITEM_TRACE_CONTEXT)
			read_trace_context(item.body, action);
		else if (item.type == ZQ_ITEM_CALL_SPAN)
			read_call_span(item.body, action);
		else if (item.type >= ZQ_ITEM_COMPONENT && item.type <= ZQ_ITEM_FRAME)
			take_numbered_text(item.type, item.body, action, frames);
	}
	for (SqlStatement &sql : action.statements) sql.statement = text_of_bytes(sql.statement);
	// Places, names and stacks count the records of the packet as it was sent.
	if (action.left_out.statements == 0) place_statements(runs, places, action.statements);
	if (action.left_out.statements == 0 && action.left_out.texts == 0) put_frames(frames, action);
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
		size_t frame = whole.field < 4 ? node.stack.size() : static_cast<size_t>(whole.field) - 4;
		if (frame < node.stack.size())
			node.stack[frame] = whole.text;
		else if (whole.field == 4 && !node.place.empty())
			node.place = whole.text;
	}
}

} // namespace quorbit
