// Reading a slot: every length is bounded by its field, every number of a call by the ring.
#include "host/board_slot.h"

#include <algorithm>
#include <cstring>

namespace quorbit {

namespace {

template <size_t size>
std::string text_of(const char (&field)[size], size_t length)
{
	return {field, std::min(length, size)};
}

// Times that a hostile writer makes stay such that differences of them are numbers.
int64_t time_of(uint64_t value)
{
	return static_cast<int64_t>(std::min(value, uint64_t{1} << 60));
}

BoardCall call_of(const zq_board_call &call)
{
	BoardCall out;
	out.kind = call.kind < ZQ_BOARD_KINDS ? static_cast<zq_board_kind>(call.kind) : ZQ_BOARD_NOTHING;
	out.text = text_of(call.text, call.length);
	out.cut = call.is_cut != 0;
	out.begin_us = time_of(call.begin_us);
	if (call.duration_us != ZQ_BOARD_RUNNING) out.duration_us = call.duration_us;
	return out;
}

void read_calls(const zq_board_slot &slot, BoardSlot &out)
{
	out.calls = slot.calls;
	for (size_t i = 0; i < out.counts.size(); i++) out.counts[i] = slot.counts[i];
	const uint32_t kept = std::min(slot.calls, ZQ_BOARD_CALLS);
	for (uint32_t number = slot.calls - kept; number != slot.calls; number++) {
		const zq_board_call &call = slot.ring[number % ZQ_BOARD_CALLS];
		if (slot.current == number + 1 && call.duration_us == ZQ_BOARD_RUNNING) out.current = out.last.size();
		out.last.push_back(call_of(call));
	}
}

} // namespace

std::optional<BoardSlot> read_board_slot(std::string_view bytes, uint64_t claim)
{
	zq_board_slot slot;
	if (bytes.size() != sizeof slot) return std::nullopt;
	memcpy(&slot, bytes.data(), sizeof slot);
	BoardSlot out;
	out.process = static_cast<int>(claim >> 32);
	out.thread = static_cast<int>(claim & UINT32_MAX);
	if (slot.owner != claim || out.process <= 0 || out.thread <= 0) return std::nullopt;
	out.open = slot.is_open != 0;
	out.started_ticks = time_of(slot.started_ticks);
	out.begin_ms = std::clamp(slot.begin_ms, int64_t{0}, int64_t{1} << 50);
	out.begin_us = time_of(slot.begin_us);
	out.application = text_of(slot.application, slot.application_length);
	out.method = text_of(slot.method, slot.method_length);
	out.path = text_of(slot.path, slot.path_length);
	out.action = text_of(slot.action, slot.action_length);
	out.function = text_of(slot.function, slot.function_length);
	out.stack = text_of(slot.stack, slot.stack_length);
	out.signal = slot.signal;
	out.asked = slot.asked;
	out.answered = slot.answered;
	out.sequence = slot.sequence;
	read_calls(slot, out);
	return out;
}

const char *name_of(zq_board_kind kind)
{
	constexpr const char *names[] = {"", "SQL", "cache", "HTTP"};
	static_assert(std::size(names) == ZQ_BOARD_KINDS);
	return names[std::min<size_t>(kind, ZQ_BOARD_KINDS) % ZQ_BOARD_KINDS];
}

} // namespace quorbit
