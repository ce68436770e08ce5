// Which quorbit this is.
#pragma once

namespace quorbit {

// The product's version, from CMake's project(); and that of the protocol, which agents send with each query.
extern const char *const product_version;
extern const char *const protocol_version;

} // namespace quorbit
