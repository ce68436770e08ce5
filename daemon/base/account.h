// Whose process this is.
#pragma once

#include <string>

namespace quorbit {

// Root needs only to have begun: where the folder is another account's, everything in it is that account's too, and the
// process becomes that account for good. Nothing for any other user, and where the folder is root's. Throws
// std::system_error when it may not.
void become_owner_of(const std::string &folder);

} // namespace quorbit
