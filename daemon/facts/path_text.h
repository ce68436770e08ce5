// Paths of requests without what tells one page's requests apart.
#pragma once

#include <string>
#include <string_view>

namespace quorbit {

// "/item/*" of "/item/2031": a segment that is nothing but a long hexadecimal number becomes one "*", too.
std::string mask_path(std::string_view path);

} // namespace quorbit
