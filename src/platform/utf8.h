// UTF-8 checks for text that comes from the kernel or the file system as
// raw bytes (interface names, volume labels) and must become property-list
// strings, which are UTF-8 by definition. Pure functions, safe from any
// thread.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// True when s is well-formed UTF-8: no overlong forms, no surrogates,
// nothing above U+10FFFF, no truncated sequence at the end.
bool is_valid_utf8(std::string_view s);

// s with every byte outside printable ASCII written as \xHH, for log lines
// that must show a name whatever bytes it holds.
std::string escape_for_log(std::string_view s);

}  // namespace platform
