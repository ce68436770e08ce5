// What options of several commands share.
#include "ask/command.h"

#include "base/clock.h"

namespace quorbit {

std::string check_seconds(const std::string &text)
{
	return parse_seconds(text) ? std::string() : "expected a time such as 90s, 15m, 2h or 7d";
}

} // namespace quorbit
