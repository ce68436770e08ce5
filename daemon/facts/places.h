// Where statements ran.
#pragma once

#include "facts/packet.h"

#include <map>

namespace quorbit {

// "file:line" of the code that ran a statement, and of whoever called that code from another class or file; "" when not
// known.
struct Place {
	std::string at, caller = {};
	auto operator<=>(const Place &) const = default;

	// "/wpdb.php:2187, called from /theme.php:40", or as much as is known.
	std::string text() const { return caller.empty() ? at : at + ", called from " + caller; }
};

// The places of some statements, by the time that these took.
class Places {
public:
	// Nothing is added when neither the statement's place nor its stack came.
	void add(const SqlStatement &sql, int64_t us);
	// Where most time went, or where most of those that took none were run; a place of nowhere when there is none.
	const Place &most() const;
	size_t size() const { return times_.size(); }
	const std::map<Place, int64_t> &times() const { return times_; } // in us

private:
	std::map<Place, int64_t> times_;
};

} // namespace quorbit
