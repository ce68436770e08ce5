// Connections that wait on a listening socket for somebody to accept them, as the kernel tells.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorbit {

// How many wait where a server listens: "/path", "PORT", "ADDRESS:PORT" or "[ADDRESS]:PORT", as in FPM's `listen`.
// `net` is the folder /proc/PID/net of the server, whose network it shows. Nothing when nobody listens there, or when
// that cannot be read. A port counts whatever the address.
std::optional<int64_t> connections_waiting(const std::string &net, const std::string &listen);

} // namespace quorbit
