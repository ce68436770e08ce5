// The build tells the product's version.
#include "base/version.h"

namespace quorbit {

const char *const product_version = QUORBIT_VERSION;
const char *const protocol_version = "Oct 20 2016";

} // namespace quorbit
