// Finding threads that have gone, and who says why.
#include "receive/killed.h"

#include "base/clock.h"
#include "facts/wire.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <ctime>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace quorbit {

namespace {

constexpr const char *proc = "/proc";

int64_t clock_us(clockid_t clock)
{
	struct timespec now;
	clock_gettime(clock, &now);
	return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

int process_of(uint64_t claim)
{
	return static_cast<int>(claim >> 32);
}

// Whether the thread of a slot with an action has gone. That its process has the number of an earlier one is seen when
// `thorough`, which costs a file of /proc.
bool has_gone(const BoardFile &board, uint32_t number, uint64_t claim, bool thorough)
{
	if (is_gone(claim)) return true;
	auto slot = thorough && board.looks_open(number) ? board.slot_if_whole(number, claim) : std::nullopt;
	return slot && is_gone(*slot, proc);
}

// Whether a log tells of the process that had this slot, and not of an earlier one with its number: by the time that
// FPM says it lasted, by the moment that Apache gives.
bool is_end_of(const LoggedEnd &end, const BoardSlot &slot)
{
	constexpr double most_s = 30; // from the end of a process until it is looked for, and more
	if (end.process != slot.process) return false;
	if (end.at_ms) return std::fabs(static_cast<double>(wall_clock_ms() - end.at_ms)) < most_s * 1000;
	const double started_s = static_cast<double>(slot.started_ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
	const double since_s = static_cast<double>(clock_us(CLOCK_BOOTTIME)) / 1e6 - started_s;
	return slot.started_ticks > 0 && end.lasted_s <= since_s + 1 && end.lasted_s > since_s - most_s;
}

} // namespace

void KilledWatch::look()
{
	constexpr int64_t thorough_every = 10;
	keep_board();
	const bool thorough = looks_++ % thorough_every == 0;
	const BoardFile board(board_.path(), true);
	const std::vector<uint64_t> claims = board.claims();
	free_strangers(board, claims);
	std::set<int> processes;
	for (uint64_t claim : claims) {
		if (claim) processes.insert(process_of(claim));
	}
	oom_kills_.look(processes);
	std::vector<Gone> gone;
	for (uint32_t i = 0; i < claims.size(); i++) {
		if (!claims[i] || !has_gone(board, i, claims[i], thorough)) continue;
		auto slot = board.slot_as_left(i, claims[i]);
		if (slot && slot->open)
			gone.push_back({i, claims[i], std::move(*slot)});
		else
			board.free_slot(i, claims[i]);
	}
	report(board, gone);
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

// By process. The kernel kills with SIGKILL, which is all that others know of it.
std::map<int, KillCause> KilledWatch::causes_of(const std::vector<Gone> &gone)
{
	std::map<int, KillCause> causes;
	for (const Gone &one : gone) {
		KillCause &cause = causes[one.slot.process];
		if (one.slot.signal) cause = {KillReason::sibling, one.slot.signal};
	}
	auto is_unknown = [](const auto &of) { return of.second.reason == KillReason::unknown; };
	if (std::any_of(causes.begin(), causes.end(), is_unknown)) {
		const std::vector<LoggedEnd> ends = logs_.ends();
		for (const Gone &one : gone) {
			KillCause &cause = causes[one.slot.process];
			for (const LoggedEnd &end : ends) {
				if (cause.reason == KillReason::sibling || !is_end_of(end, one.slot)) continue;
				cause = {end.timed_out ? KillReason::timeout : KillReason::signal, end.signal};
			}
		}
	}
	std::set<int> perhaps;
	for (const auto &[process, cause] : causes) {
		if (cause.reason == KillReason::unknown || cause.signal == SIGKILL) perhaps.insert(process);
	}
	for (int process : oom_kills_.killed_among(perhaps)) causes[process] = {KillReason::memory, SIGKILL};
	return causes;
}

void KilledWatch::report(const BoardFile &board, const std::vector<Gone> &gone)
{
	std::map<int, KillCause> causes = causes_of(gone);
	std::map<uint64_t, int64_t> waiting;
	for (const Gone &one : gone) {
		const auto before = waiting_.find(one.claim);
		const bool is_new = before == waiting_.end();
		const int64_t ended_us = is_new ? clock_us(CLOCK_MONOTONIC) : before->second;
		const KillCause cause =
			one.slot.signal ? KillCause{KillReason::signal, one.slot.signal} : causes[one.slot.process];
		if (is_new && cause.reason == KillReason::unknown) {
			waiting[one.claim] = ended_us; // a server may be about to say it
			continue;
		}
		put(one.slot, cause, ended_us);
		board.free_slot(one.number, one.claim);
	}
	waiting_ = std::move(waiting);
}

void KilledWatch::put(const BoardSlot &slot, const KillCause &cause, int64_t ended_us)
{
	constexpr uint32_t any_writer = UINT32_MAX; // of the board; no account has this number
	log_.message(LogLevel::info,
		"process " + std::to_string(slot.process) + " has ended " + end_of(slot, cause) + ", with that request open");
	writer_.put(StoredPacket{
		record_metric, slot.process, wall_clock_ms(), packet_of_killed(slot, cause, ended_us), any_writer});
}

} // namespace quorbit
