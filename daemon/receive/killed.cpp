// Finding threads that have gone, and writing the packets of their requests.
#include "receive/killed.h"

#include "base/clock.h"
#include "facts/wire.h"
#include "zqp_details_items.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace quorbit {

namespace {

constexpr const char *proc = "/proc";
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

// "with SIGSEGV ", when its agent has seen it come.
std::string signal_of(const BoardSlot &slot)
{
	const char *name = slot.signal ? sigabbrev_np(slot.signal) : nullptr;
	return name ? std::string("with SIG") + name + " " : "";
}

// What the request was in, without what differs from one to the next.
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

int64_t monotonic_us()
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// Whether the thread of a slot with an action has gone. That its process has the number of an earlier one is seen when
// `thorough`, which costs a file of /proc.
bool has_gone(const BoardFile &board, uint32_t number, uint64_t claim, bool thorough)
{
	if (is_gone(claim)) return true;
	auto slot = thorough && board.looks_open(number) ? board.slot_if_whole(number, claim) : std::nullopt;
	return slot && is_gone(*slot, proc);
}

} // namespace

std::string packet_of_killed(const BoardSlot &slot, int64_t now_us)
{
	const bool web = !slot.method.empty();
	const int64_t took_us = std::max<int64_t>(now_us - slot.begin_us, 0);
	std::string body;
	append_record(body, record_application_name, one_line(slot.application));
	append_record(body, record_action_name, (web ? "WebAction/URI" : "BackgroundAction/Script/") + one_line(slot.path));
	if (web) append_record(body, record_uri, slot.path);
	append_record(body, record_duration_ms, number(took_us / 1000));
	for (const BoardCall &call : slot.last) append_call(body, call, now_us);
	append_record(body, record_error,
		std::string("1\n0\n") + killed_class + "\nThe process ended " + signal_of(slot) + last_known(slot) + "\n");
	append_record(body, record_detail,
		"killed: process " + std::to_string(slot.process) + " " + signal_of(slot) + last_known(slot));
	append_record(body, record_details, details_of(slot, took_us, now_us));
	return body;
}

void KilledWatch::look()
{
	constexpr int64_t thorough_every = 10;
	keep_board();
	const bool thorough = looks_++ % thorough_every == 0;
	const BoardFile board(board_.path(), true);
	const std::vector<uint64_t> claims = board.claims();
	free_strangers(board, claims);
	for (uint32_t i = 0; i < claims.size(); i++) {
		if (!claims[i] || !has_gone(board, i, claims[i], thorough)) continue;
		auto slot = board.slot_as_left(i, claims[i]);
		if (slot && slot->open) report(*slot);
		board.free_slot(i, claims[i]);
	}
}

void KilledWatch::keep_board()
{
	try {
		if (!board_.keep()) return;
		if (looks_ > 0 && !has_failed_)
			log_.message(LogLevel::warning, board_.path() + " was removed or spoilt: it has been made anew");
		has_failed_ = false;
	} catch (const std::runtime_error &failure) {
		const std::string consequence = "there is no board, `quorbit now` shows nothing: ";
		if (!has_failed_) log_message(LogLevel::warning, consequence + failure.what());
		has_failed_ = true;
	}
}

// On a full board, claims that no thread has written beside its slot are somebody else's work, unless they have only
// just been made.
void KilledWatch::free_strangers(const BoardFile &board, const std::vector<uint64_t> &claims)
{
	std::map<uint32_t, uint64_t> strangers;
	const bool is_full = std::find(claims.begin(), claims.end(), 0) == claims.end();
	for (uint32_t i = 0; is_full && i < claims.size(); i++) {
		if (board.owner(i) != claims[i]) strangers[i] = claims[i];
	}
	for (const auto &[number, claim] : strangers) {
		const auto before = strangers_.find(number);
		if (before != strangers_.end() && before->second == claim) board.free_slot(number, claim);
	}
	strangers_ = std::move(strangers);
}

void KilledWatch::report(const BoardSlot &slot)
{
	constexpr uint32_t any_writer = UINT32_MAX; // of the board; no account has this number
	log_.message(LogLevel::info,
		"process " + std::to_string(slot.process) + " has ended with a request open: " + last_known(slot));
	writer_.put(
		StoredPacket{record_metric, slot.process, wall_clock_ms(), packet_of_killed(slot, monotonic_us()), any_writer});
}

} // namespace quorbit
