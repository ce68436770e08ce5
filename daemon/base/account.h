// Whose process this is.
#pragma once

#include <string>

namespace quorbit {

// Root needs only to have begun: where the folder is another account's, everything in it is that account's too, and the
// process becomes that account for good. Nothing for any other user, and where the folder is root's. Throws
// std::system_error when it may not.
void become_owner_of(const std::string &folder);

// For a process that has to stay root, because the folder is root's own: gives up every capability for good and, where
// the kernel has Landlock (https://docs.kernel.org/userspace-api/landlock.html), the right to write anything but what
// is in the folder, and to start programs. To be called before there are threads. Nothing for other users. Throws
// std::system_error when the kernel refuses.
void confine_root_to(const std::string &folder);

} // namespace quorbit
