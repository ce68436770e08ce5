// Adding up by place.
#include "facts/places.h"

#include "facts/trace.h"

#include <algorithm>

namespace quorbit {

void Places::add(const SqlStatement &sql, int64_t us)
{
	Place place{sql.place, sql.caller};
	if (place.at.empty()) place.at = innermost_place(sql.stack);
	if (!place.at.empty()) times_[std::move(place)] += us + 1;
}

const Place &Places::most() const
{
	static const Place nowhere;
	auto most = std::max_element(
		times_.begin(), times_.end(), [](const auto &a, const auto &b) { return a.second < b.second; });
	return most == times_.end() ? nowhere : most->first;
}

} // namespace quorbit
