// The host name rules of RFC 1123: letters, digits and inner hyphens.
#include "identity/dns_name.h"

namespace hubwarden {

namespace {

constexpr size_t kMaxLabel = 63;
constexpr size_t kMaxName = 253;

bool is_label_byte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
}

bool is_valid_label(std::string_view label) {
  if (label.empty() || label.size() > kMaxLabel) return false;
  if (label.front() == '-' || label.back() == '-') return false;
  for (char c : label)
    if (!is_label_byte(c)) return false;
  return true;
}

}  // namespace

bool is_valid_dns_name(std::string_view name) {
  if (!name.empty() && name.back() == '.') name.remove_suffix(1);
  if (name.empty() || name.size() > kMaxName) return false;
  for (;;) {
    size_t dot = name.find('.');
    if (!is_valid_label(name.substr(0, dot))) return false;
    if (dot == std::string_view::npos) return true;
    name.remove_prefix(dot + 1);
  }
}

}  // namespace hubwarden
