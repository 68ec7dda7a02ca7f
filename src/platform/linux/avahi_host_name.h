// The host name in the text of Avahi's daemon configuration (an INI file:
// "host-name=" in the "[server]" section), which Avahi takes at start.
// Pure functions, safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform::avahi_conf {

// The host-name set in the [server] section; nullopt when there is none or
// it is empty.
std::optional<std::string> host_name(std::string_view text);

// text with host-name=name in the [server] section: the active setting
// replaced where it stands, else added right after the section header,
// else a new section appended. Comments (including a commented-out
// host-name) and every other line are kept byte for byte.
std::string with_host_name(std::string_view text, std::string_view name);

}  // namespace platform::avahi_conf
