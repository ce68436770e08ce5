// The events of a thread profile.
#include "print/report.h"

#include "base/text.h"

#include <algorithm>
#include <cstdio>

namespace quorbit {

std::string ProfilePrinter::add(const ProfileEvent &event)
{
	std::string out;
	if (events_ == 0 || event.thread != thread_) {
		out = std::string(events_ ? "\n" : "") + "Thread " + std::to_string(event.thread) +
			"  (ms from its first event)\n";
		thread_ = event.thread;
		begin_ms_ = event.at_ms;
		open_.clear();
	}
	events_++;
	std::string taken;
	if (!event.enter) {
		// A leave ends what was entered under its name, and all that exit or a fatal error kept from leaving.
		auto same = std::find_if(open_.rbegin(), open_.rend(), [&](const Entered &entered) {
			return entered.kind == event.kind && (event.kind == "action" || entered.name == event.name);
		});
		if (same != open_.rend()) {
			taken = "  " + std::to_string(event.at_ms - same->at_ms) + " ms";
			open_.erase(same.base() - 1, open_.end());
		}
	}
	char at[24];
	snprintf(at, sizeof at, "%10lld  ", static_cast<long long>(event.at_ms - begin_ms_));
	constexpr size_t most_levels = 40;
	out += at + std::string(2 * std::min(open_.size(), most_levels), ' ') + (event.enter ? "> " : "< ");
	out += (event.kind == "action" ? "action " : "") + printable(event.name) + taken + "\n";
	if (event.enter) open_.push_back({event.kind, event.name, event.at_ms});
	return out;
}

} // namespace quorbit
