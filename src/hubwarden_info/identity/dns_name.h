// Whether text may stand as a DNS host name. Pure; safe from any thread.
#pragma once

#include <string_view>

namespace hubwarden {

// True for one or more dot-separated labels of ASCII letters, digits and
// hyphens, each 1 to 63 bytes long and neither beginning nor ending with a
// hyphen, 253 bytes at most in all. A single trailing dot (the root) is
// allowed; an empty name is not.
bool is_valid_dns_name(std::string_view name);

}  // namespace hubwarden
