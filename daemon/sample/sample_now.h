// What the shop of the sample does at this moment.
#pragma once

#include <string>

namespace quorbit {

// What `quorbit now --json` would print of such a host, in one line: a few requests, of which one has waited for long.
std::string sample_now();

} // namespace quorbit
