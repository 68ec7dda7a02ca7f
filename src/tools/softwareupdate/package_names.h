// Rules about Debian package names that the update tool applies before a
// name reaches apt: which names are acceptable at all, and which packages
// usually leave the machine needing a restart. Pure functions; thread-safe.
#pragma once

#include <string_view>

namespace softwareupdate {

// True for a Debian package name (lower-case letters, digits, '+', '-' and
// '.', at least two characters, starting with a letter or digit), optionally
// qualified by an architecture (":amd64"). Nothing else is ever handed to
// apt, so a name can never be read as an option or carry shell syntax.
bool is_valid_package_name(std::string_view name);

// The package name without its architecture qualifier.
std::string_view bare_package_name(std::string_view name);

// True for packages whose new version only takes effect after a reboot:
// kernel images ("linux-image-*"), processor microcode, and the pieces that
// every running process or the service manager holds on to (the C library,
// systemd, the D-Bus system bus). The list is deliberately short: services
// that can be restarted on their own do not count.
bool usually_needs_restart(std::string_view name);

}  // namespace softwareupdate
