// Records as agents write them.
#include "receive/killed_packet.h"

#include "facts/wire.h"
#include "zqp_details_items.h"

#include <algorithm>
#include <cstring>

namespace quorbit {

namespace {

constexpr const char *killed_class = "Killed";

std::string number(int64_t value)
{
	const auto cut = static_cast<int32_t>(std::clamp<int64_t>(value, 0, INT32_MAX));
	return {reinterpret_cast<const char *>(&cut), sizeof cut};
}

// As lines of records have it.
std::string one_line(std::string text)
{
	std::replace_if(
		text.begin(), text.end(), [](char byte) { return byte == '\n' || byte == '\r' || byte == '\0'; }, ' ');
	return text;
}

std::string item(const std::string &text)
{
	return std::to_string(text.size()) + ":" + text;
}

std::string text_of(const BoardCall &call)
{
	return one_line(call.text) + (call.cut ? "..." : "");
}

// "with SIGKILL " and the like; "" when nobody says it.
std::string how(const KillCause &cause)
{
	const char *name = cause.signal ? sigabbrev_np(cause.signal) : nullptr;
	const std::string signal = name ? std::string("SIG") + name : "signal " + std::to_string(cause.signal);
	switch (cause.reason) {
	case KillReason::unknown: return "";
	case KillReason::signal: return "with " + signal + " ";
	case KillReason::sibling: return "with " + signal + " of another thread ";
	case KillReason::timeout: return "by FPM's request_terminate_timeout ";
	case KillReason::memory: return "by the kernel's OOM killer ";
	}
	return "";
}

// What the request was in.
std::string last_known(const BoardSlot &slot)
{
	if (slot.current) {
		const BoardCall &call = slot.last[*slot.current];
		return std::string("in ") + name_of(call.kind) + " " + text_of(call);
	}
	return slot.function.empty() ? "in PHP" : "in PHP, " + one_line(slot.function);
}

int64_t duration_us(const BoardCall &call, int64_t now_us)
{
	return call.duration_us >= 0 ? call.duration_us : std::max<int64_t>(now_us - call.begin_us, 0);
}

// "http:%2F%2Fhost%2Fpath", as agents name outgoing calls.
std::string name_of_url(const std::string &url)
{
	std::string out;
	for (char byte : url) out += byte == '/' ? std::string("%2F") : std::string(1, byte);
	return out;
}

void append_call(std::string &out, const BoardCall &call, int64_t now_us)
{
	const std::string ms = std::to_string(duration_us(call, now_us) / 1000);
	const std::string text = text_of(call);
	if (call.kind == ZQ_BOARD_SQL) append_record(out, record_sql, item(ms) + item("") + item(text));
	if (call.kind == ZQ_BOARD_CACHE) append_record(out, record_service, "Cache\n\n" + text + "\n" + ms);
	if (call.kind == ZQ_BOARD_HTTP) append_record(out, record_service, "http\n" + name_of_url(text) + "\n\n" + ms);
}

void append_figure(std::string &out, zq_details_item type, int64_t value)
{
	append_record(out, type, {reinterpret_cast<const char *>(&value), sizeof value});
}

// What the last calls add up to; those before them are counted, but nobody knows how long they took.
std::string details_of(const BoardSlot &slot, int64_t took_us, int64_t now_us)
{
	int64_t sums[ZQ_BOARD_KINDS] = {};
	for (const BoardCall &call : slot.last) sums[call.kind] += duration_us(call, now_us);
	std::string out;
	append_figure(out, ZQ_ITEM_DURATION_US, took_us);
	append_figure(out, ZQ_ITEM_DATABASE_US, std::min(sums[ZQ_BOARD_SQL], took_us));
	append_figure(out, ZQ_ITEM_CACHES_US, std::min(sums[ZQ_BOARD_CACHE], took_us));
	append_figure(out, ZQ_ITEM_SERVICES_US, std::min(sums[ZQ_BOARD_HTTP], took_us));
	append_figure(out, ZQ_ITEM_STATEMENTS, slot.counts[ZQ_BOARD_SQL]);
	append_figure(out, ZQ_ITEM_CACHE_OPERATIONS, slot.counts[ZQ_BOARD_CACHE]);
	append_figure(out, ZQ_ITEM_SERVICES, slot.counts[ZQ_BOARD_HTTP]);
	if (!slot.method.empty()) {
		append_record(out, ZQ_ITEM_PATH, slot.path);
		append_record(out, ZQ_ITEM_METHOD, slot.method);
	} else {
		append_record(out, ZQ_ITEM_SCRIPT, slot.path);
	}
	return out;
}

} // namespace

std::string end_of(const BoardSlot &slot, const KillCause &cause)
{
	return how(cause) + last_known(slot);
}

std::string packet_of_killed(const BoardSlot &slot, const KillCause &cause, int64_t ended_us)
{
	const int64_t took_us = std::max<int64_t>(ended_us - slot.begin_us, 0);
	std::string body;
	append_record(body, record_application_name, one_line(slot.application));
	append_record(body, record_action_name, one_line(slot.action));
	if (!slot.method.empty()) append_record(body, record_uri, slot.path);
	append_record(body, record_duration_ms, number(took_us / 1000));
	for (const BoardCall &call : slot.last) append_call(body, call, ended_us);
	append_record(
		body, record_error, std::string("1\n0\n") + killed_class + "\nThe process ended " + end_of(slot, cause) + "\n");
	append_record(body, record_detail, "killed: process " + std::to_string(slot.process) + " " + end_of(slot, cause));
	append_record(body, record_details, details_of(slot, took_us, ended_us));
	return body;
}

} // namespace quorbit
