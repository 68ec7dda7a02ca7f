// Debian policy's package-name grammar and the restart rule.
#include "tools/softwareupdate/package_names.h"

#include <array>

namespace softwareupdate {
namespace {

bool is_lower_alnum(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

bool is_valid_bare_name(std::string_view name) {
  if (name.size() < 2 || !is_lower_alnum(name.front())) return false;
  for (char c : name) {
    if (!is_lower_alnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

bool is_valid_architecture(std::string_view arch) {
  if (arch.empty() || !is_lower_alnum(arch.front())) return false;
  for (char c : arch) {
    if (!is_lower_alnum(c) && c != '-') return false;
  }
  return true;
}

}  // namespace

bool is_valid_package_name(std::string_view name) {
  size_t colon = name.find(':');
  if (colon == std::string_view::npos) return is_valid_bare_name(name);
  return is_valid_bare_name(name.substr(0, colon)) && is_valid_architecture(name.substr(colon + 1));
}

std::string_view bare_package_name(std::string_view name) { return name.substr(0, name.find(':')); }

bool usually_needs_restart(std::string_view name) {
  static constexpr std::array<std::string_view, 7> kExact = {
      "libc6", "systemd", "dbus", "dbus-daemon", "dbus-broker", "intel-microcode", "amd64-microcode",
  };
  std::string_view bare = bare_package_name(name);
  for (std::string_view e : kExact) {
    if (bare == e) return true;
  }
  return bare.starts_with("linux-image-");
}

}  // namespace softwareupdate
